// The permission question end to end: the simulator sends the request over the agent's link, the
// resident agent starts the question as a process of its own, and that process exchanges its
// datagram records with the simulator, which checks every answer byte by byte.
#include "resident_agent.h"

#include "UiDriver.h"

#include <gtest/gtest.h>

#include <functional>

using namespace kvtest;

namespace
{

// An ordinary desktop: Wine's session query fails there, and the console must still count as
// attended, so the user is asked rather than answered for.
HWND WaitForQuestion(const std::wstring& desktop)
{
    return kvui::WaitForWindow({L"#32770", L"Remote control request", 0, desktop, true}, kE2eWait);
}

// Enter as the keyboard gives it: the dialog manager of the question's modal loop decides which
// button it means.
bool PressEnter(HWND hDlg)
{
    return PostMessageW(hDlg, WM_KEYDOWN, VK_RETURN, 0x001C0001) != FALSE &&
           PostMessageW(hDlg, WM_KEYUP, VK_RETURN, 0xC01C0001) != FALSE;
}

} // namespace

TEST(PermissionQuestion, TheUsersAnswerTheCloseBoxAndTheServicesWithdrawalReachTheService)
{
    Resident r;
    ASSERT_TRUE(r.Launch());

    const struct
    {
        const char* szOptions;
        bool bDenyDefault, bKeep;
        const char* szExpected; // expect-permission
        std::function<bool(HWND)> act;
    } cases[] = {
        {"", false, false, "allow", [](HWND h) { return kvui::ClickButton(h, IDOK); }},
        {"", false, false, "deny", [](HWND h) { return kvui::ClickButton(h, IDCANCEL); }},
        {"deny-default=1", true, false, "deny", PressEnter},
        {"deny-default=0", false, false, "allow", PressEnter},
        {"keep=1", false, true, "deny", [](HWND h) { return kvui::CloseWindow(h); }},
        {"variant=1", false, false, "withdrawn", nullptr},
    };
    for (const auto& c : cases)
    {
        SCOPED_TRACE(std::string(c.szOptions) + " -> " + c.szExpected);
        r.sim.Play({std::string("permission Viewer alice from 10.0.0.7 ") + c.szOptions});
        HWND hDlg = WaitForQuestion(r.desktop.Name());
        ASSERT_NE(nullptr, hDlg) << r.Story();
        // The service's text, the default button it asks for, on top of everything; asked to keep
        // it, at the screen's corner rather than beside the taskbar.
        EXPECT_EQ(L"Viewer alice from 10.0.0.7", kvui::ReadText(GetDlgItem(hDlg, 1001)));
        EXPECT_EQ(c.bDenyDefault ? IDCANCEL : IDOK, LOWORD(SendMessageW(hDlg, DM_GETDEFID, 0, 0)));
        EXPECT_NE(0, GetWindowLongW(hDlg, GWL_EXSTYLE) & WS_EX_TOPMOST);
        RECT rc = {};
        GetWindowRect(hDlg, &rc);
        EXPECT_EQ(c.bKeep, rc.left == 0 && rc.top == 0) << rc.left << "," << rc.top;
        if (c.act)
            EXPECT_TRUE(c.act(hDlg));
        else
            r.sim.Play({"permission-withdraw"});
        r.sim.Play({std::string("expect-permission ") + c.szExpected});
        ASSERT_TRUE(r.sim.Settle(kE2eWait)) << r.Story();
        EXPECT_TRUE(kvui::WaitUntilGone(hDlg, kE2eWait));
    }

    EXPECT_TRUE(r.ExitsOnRequest());
}
