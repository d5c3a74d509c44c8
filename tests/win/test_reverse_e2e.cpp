// Outgoing connections through the built agent and the simulator: the join dialog's code arrives
// trimmed in one 70070 request, a blank code keeps the dialog, a second command brings it to the
// front, no second request goes out while one is under way, the connecting dialog follows the
// service's results and its Cancel withdraws the request (sub-code 103), and a withdrawn request
// closes an open join dialog.
#include "resident_agent.h"

#include "resource.h"

#include <commctrl.h>

#include <gtest/gtest.h>

using namespace kvtest;

namespace
{

HWND WaitForAgentDialog(const Resident& r, const wchar_t* szTitle, DWORD ms = kE2eWait)
{
    return WaitForDesktopWindow(r.desktop.Name(), L"#32770", szTitle, ms, true);
}

} // namespace

TEST(ReverseConnection, JoinCodeGoesOutTrimmedOnceAndTheConnectingDialogFollowsTheService)
{
    Resident r;
    ASSERT_TRUE(r.Launch());
    const HWND hTray = r.TrayWindow();
    PostMessageW(hTray, WM_COMMAND, IDM_JOIN_INTERNET_SESSION, 0);
    const HWND hJoin = WaitForAgentDialog(r, L"Join an internet session");
    ASSERT_NE(nullptr, hJoin) << r.Story();

    // Blanks only: the note, the focus back on the code, the dialog stays.
    ASSERT_TRUE(kvui::TypeText(hJoin, IDC_JOIN_CODE, L" \t "));
    ASSERT_TRUE(kvui::ClickButton(hJoin, IDOK));
    const HWND hNote = WaitForAgentDialog(r, L"Kestrova Vexa Remote Control");
    ASSERT_NE(nullptr, hNote) << r.Story();
    EXPECT_TRUE(kvui::CloseWindow(hNote));
    EXPECT_TRUE(kvui::WaitUntilGone(hNote, kE2eWait));
    EXPECT_TRUE(IsWindow(hJoin));

    // A second command finds the open dialog.
    PostMessageW(hTray, WM_COMMAND, IDM_JOIN_INTERNET_SESSION, 0);
    EXPECT_TRUE(
        r.WaitForLog("INFO", "KVNXSTWindow", "Join Internet Session dialog exists, bringing to top."));

    ASSERT_TRUE(kvui::TypeText(hJoin, IDC_JOIN_CODE, L"  482-913-077\t "));
    ASSERT_TRUE(kvui::ClickButton(hJoin, IDOK));
    r.sim.Play({"expect-reverse status=0 join=1 code=482-913-077 host=\"\" use-proxy=0"});
    EXPECT_TRUE(kvui::WaitUntilGone(hJoin, kE2eWait));

    // While the request is out the command does nothing.
    PostMessageW(hTray, WM_COMMAND, IDM_JOIN_INTERNET_SESSION, 0);
    EXPECT_EQ(nullptr, WaitForAgentDialog(r, L"Join an internet session", 1500));

    // The service connects: the marquee runs until the user cancels, which withdraws the request;
    // the service's answer takes the dialog away.
    r.sim.Play({"reverse 101"});
    const HWND hWait = WaitForAgentDialog(r, L"Connecting");
    ASSERT_NE(nullptr, hWait) << r.Story();
    EXPECT_NE(0, GetWindowLongW(GetDlgItem(hWait, IDC_CONNECT_PROGRESS), GWL_STYLE) & PBS_MARQUEE);
    ASSERT_TRUE(kvui::ClickButton(hWait, IDCANCEL));
    r.sim.Play({"expect-reverse status=103", "reverse 102"});
    EXPECT_TRUE(WaitUntil([&] { return !IsWindow(hWait); })) << r.Story();

    // The result frees the command again; a request withdrawn meanwhile closes the open dialog.
    r.sim.Play({"reverse 100 suppress=1"});
    EXPECT_TRUE(WaitUntil(
        [&]
        {
            PostMessageW(hTray, WM_COMMAND, IDM_JOIN_INTERNET_SESSION, 0);
            return WaitForAgentDialog(r, L"Join an internet session", 500) != nullptr;
        }));
    const HWND hAgain = WaitForAgentDialog(r, L"Join an internet session");
    r.sim.Play({"reverse 102"});
    EXPECT_TRUE(kvui::WaitUntilGone(hAgain, kE2eWait)) << r.Story();
    EXPECT_TRUE(r.ExitsOnRequest());
}
