// The connect/disconnect notice of the real agent, opened by the simulator's viewers: its texts
// read back from its controls, and its disconnect button asking the tray window, which asks the
// user and tells the service.
#include "resident_agent.h"

#include "resource.h"

#include <gtest/gtest.h>

using namespace kvtest;

namespace
{

constexpr wchar_t kNoticeTitle[] = L"Vexa Remote Control"; // the simulator's notice title

std::string ControlText(HWND hDlg, int nId)
{
    return Narrow(kvui::ReadText(GetDlgItem(hDlg, nId)).value_or(L"<no control>"));
}

// The shown notice, once it has this heading (a new notice replaces the old one).
HWND WaitForNotice(const Resident& r, const std::string& heading)
{
    const ULONGLONG end = GetTickCount64() + kE2eWait;
    for (; GetTickCount64() < end; Sleep(50))
        for (HWND hWnd : DesktopWindows(r.desktop.Name(), L"#32770", kNoticeTitle))
            if (IsShown(hWnd) && ControlText(hWnd, IDC_NOTIFY_HEADING) == heading)
                return hWnd;
    return nullptr;
}

} // namespace

TEST(Notice, ConnectDisconnectAndViewerListTextsComeFromTheRecords)
{
    Resident r;
    ASSERT_TRUE(r.Launch());
    r.sim.Play({"settings-update heading=Heading connect-header=\"Viewer alice is here.\" display-time=0",
                "connect alice line2=WS-7 line3=192.0.2.10 icon=2"});

    HWND hNotice = WaitForNotice(r, "Heading");
    ASSERT_NE(nullptr, hNotice) << r.Story();
    EXPECT_FALSE(IsShown(GetDlgItem(hNotice, IDC_NOTIFY_BODY))) << "the body is painted, not shown";
    EXPECT_EQ("Viewer alice is here.\r\nUser: alice\r\nComputer: WS-7\r\nAddress: 192.0.2.10\r\n"
              "The remote control icon is shown only while a remote user is connected.",
              ControlText(hNotice, IDC_NOTIFY_BODY));
    // Wine has no sound aliases: the beep stands in.
    EXPECT_TRUE(
        r.WaitForLog("INFO", "NotifyDialog", "The sound \"WindowsLogon\" cannot be played; beeping instead."))
        << r.Story();

    // The viewer list, with the service's own text and count.
    r.sim.Play({"notify-all \"alice (WS-7)\r\nbob (WS-9)\" count=2"});
    hNotice = WaitForNotice(r, "Remote users connected: 2");
    ASSERT_NE(nullptr, hNotice) << r.Story();
    EXPECT_EQ("alice (WS-7)\r\nbob (WS-9)", ControlText(hNotice, IDC_NOTIFY_LIST));
    EXPECT_TRUE(IsShown(GetDlgItem(hNotice, IDC_NOTIFY_LIST)));
    EXPECT_FALSE(IsShown(GetDlgItem(hNotice, IDC_NOTIFY_DISCONNECT)));

    // Disconnected: the heading even when empty, the disconnect record's own (empty) lines, the
    // selector's note for icon 0.
    r.sim.Play({"settings-update heading=\"\"", "disconnect alice icon=0"});
    hNotice = WaitForNotice(r, "");
    ASSERT_NE(nullptr, hNotice) << r.Story();
    EXPECT_EQ("A remote user has disconnected.\r\nUser: alice\r\nAddress: \r\n"
              "The remote control icon is not shown in the notification area.",
              ControlText(hNotice, IDC_NOTIFY_BODY));
    // Display time 0: still there a while later.
    Sleep(1500);
    EXPECT_TRUE(IsWindow(hNotice));
}

TEST(Notice, ViewerListDisconnectButtonAsksAndTellsTheService)
{
    Resident r;
    ASSERT_TRUE(r.Launch());
    r.sim.Play({"connect alice button=1", "notify-all"});
    const HWND hNotice = WaitForNotice(r, "Remote users connected: 1");
    ASSERT_NE(nullptr, hNotice) << r.Story();
    EXPECT_EQ(0, GetWindowLongW(hNotice, GWL_STYLE) & WS_SYSMENU) << "no close box";
    const HWND hButton = GetDlgItem(hNotice, IDC_NOTIFY_DISCONNECT);
    ASSERT_TRUE(IsShown(hButton));

    // The close box's message does nothing while the button is offered.
    SendMessageW(hNotice, WM_CLOSE, 0, 0);
    EXPECT_TRUE(IsWindow(hNotice));

    SendMessageW(hButton, BM_CLICK, 0, 0);
    const HWND hQuestion =
        WaitForDesktopWindow(r.desktop.Name(), L"#32770", L"Kestrova Vexa Remote Control", kE2eWait, true);
    ASSERT_NE(nullptr, hQuestion) << r.Story();
    PostMessageW(hQuestion, WM_COMMAND, IDYES, 0);
    r.sim.Play({"expect MSG_TYPE_TRAYICON_USER_REQUEST"});
    EXPECT_TRUE(r.sim.Settle(kE2eWait)) << r.Story();
    EXPECT_EQ("", r.sim.Errors()) << r.Story();
}

// Texts that kill Wine's edit control (a mark starting a line's run: U+0EC8 alone, U+02D7 alone, a
// Hebrew point after a Latin letter in a Hebrew line) are shown through the list and the painted
// body; controls and direction overrides never reach the screen.
TEST(Notice, HostileTextsAreShownWithoutControlsOrOverrides)
{
    Resident r;
    ASSERT_TRUE(r.Launch());
    r.sim.Play({"settings-update heading=H display-time=0",
                "connect \"\xE0\xBB\x88\xCB\x97\xD7\x93" "A\xD6\xB3\" line2=\"x\xE2\x80\xAE\x01" "y\"",
                "notify-all \"\xE0\xBB\x88\r\n\xD7\x93" "A\xD6\xB3\nbob\xE2\x80\xAE" "txt\x07\rz\" count=3"});
    HWND hNotice = WaitForNotice(r, "Remote users connected: 3");
    ASSERT_NE(nullptr, hNotice) << r.Story();
    EXPECT_EQ("\xE0\xBB\x88\r\n\xD7\x93" "A\xD6\xB3\r\nbobtxt\r\nz", ControlText(hNotice, IDC_NOTIFY_LIST));
    r.sim.Play({"disconnect alice"});
    EXPECT_NE(nullptr, WaitForNotice(r, "H")) << r.Story();
    EXPECT_EQ(0, r.sim.Finish()) << r.sim.Errors() << r.Story();
}
