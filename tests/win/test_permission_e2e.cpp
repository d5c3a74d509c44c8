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

// Under Wine the input desktop is always the caller's own, and the session query fails, so a
// console counts as attended only on the screen saver's desktop: the agent runs on one so named.
const wchar_t kDesktop[] = L"Screen-saver";

HWND WaitForQuestion()
{
    return kvui::WaitForWindow({L"#32770", L"Remote control request", 0, kDesktop, true}, kE2eWait);
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
    Resident r(SimThread::Options(OwnSession()), kDesktop);
    ASSERT_TRUE(r.Launch());

    const struct
    {
        const char* szOptions;
        const char* szExpected; // expect-permission
        std::function<bool(HWND)> act;
    } cases[] = {
        {"", "allow", [](HWND h) { return kvui::ClickButton(h, IDOK); }},
        {"", "deny", [](HWND h) { return kvui::ClickButton(h, IDCANCEL); }},
        {"deny-default=1", "deny", PressEnter},
        {"deny-default=0", "allow", PressEnter},
        {"keep=1", "deny", [](HWND h) { return kvui::CloseWindow(h); }},
        {"variant=1", "withdrawn", nullptr},
    };
    for (const auto& c : cases)
    {
        SCOPED_TRACE(std::string(c.szOptions) + " -> " + c.szExpected);
        r.sim.Play({std::string("permission Viewer alice from 10.0.0.7 ") + c.szOptions});
        HWND hDlg = WaitForQuestion();
        ASSERT_NE(nullptr, hDlg) << r.Story();
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
