// The About box of the resident agent, opened by its tray command against the simulator. Which
// lines the information block has is proved on the host (test_about_info.cpp); here the service's
// values reach it, the version line reads the service program beside the agent, the copy button
// fills the clipboard, and the box closes by itself.
#include "resident_agent.h"

#include <gtest/gtest.h>

#include <utility>
#include <vector>

using namespace kvtest;

namespace
{

constexpr UINT IDM_ABOUT = 40009;
constexpr int IDC_ABOUT_INFO = 1005;
constexpr int IDC_ABOUT_VERSION = 1011;
constexpr int IDC_ABOUT_COPY = 1013;
constexpr UINT_PTR KV_ABOUT_TIMER = 111;

// The tray command; the simulator must see the address request and answers it.
HWND OpenAbout(Resident& r, HWND hTray)
{
    PostMessageW(hTray, WM_COMMAND, IDM_ABOUT, 0);
    r.sim.Play({"expect 70040", "addresses 10.0.0.1"});
    return WaitForDesktopWindow(r.desktop.Name(), L"#32770", L"About Kestrova Vexa Remote Control", kE2eWait,
                                true);
}

std::wstring ItemText(HWND hDlg, int nId)
{
    return kvui::ReadText(GetDlgItem(hDlg, nId)).value_or(L"<no control>");
}

// The uidriver program with these arguments, as the demo script runs it: its exit code and its
// standard output.
std::pair<DWORD, std::string> Driver(const std::vector<std::wstring>& args)
{
    return kvui::RunProgram(ModuleFolder() + L"uidriver.exe", args, kE2eWait);
}

std::wstring Hex(HWND hWnd)
{
    wchar_t sz[32] = {};
    swprintf(sz, 32, L"0x%llx", static_cast<unsigned long long>(reinterpret_cast<ULONG_PTR>(hWnd)));
    return sz;
}

// The agent's own notice, as its version block carries it.
std::wstring AgentCopyright(const std::wstring& exe)
{
    DWORD dwHandle = 0;
    std::vector<BYTE> block(GetFileVersionInfoSizeW(exe.c_str(), &dwHandle));
    wchar_t* p = nullptr;
    UINT cch = 0;
    if (block.empty() ||
        !GetFileVersionInfoW(exe.c_str(), 0, static_cast<DWORD>(block.size()), block.data()) ||
        !VerQueryValueW(block.data(), L"\\StringFileInfo\\040904b0\\LegalCopyright",
                        reinterpret_cast<void**>(&p), &cch))
        return L"<none>";
    return p;
}

} // namespace

TEST(AboutBox, ShowsTheServiceVersionAndInformationCopiesItAndClosesOnItsTimer)
{
    Resident r;
    ASSERT_TRUE(r.folder.Add(L"kvnxst_fake_service.exe", L"KVNXS.exe"));
    ASSERT_TRUE(r.Launch());
    const HWND hTray = r.TrayWindow();
    ASSERT_NE(nullptr, hTray);
    r.sim.Play({"settings about1=PC-7 about2=6129 about3=\"10.0.0.1  10.0.0.2\" about9=\"Session 1\" "
                "about-a=0 about-b=1 about-c=1",
                "expect 50000"});
    ASSERT_TRUE(r.sim.Settle(kE2eWait)) << r.Story();

    const HWND hAbout = OpenAbout(r, hTray);
    ASSERT_NE(nullptr, hAbout) << r.Story();
    EXPECT_TRUE(GetWindowLongW(hAbout, GWL_EXSTYLE) & WS_EX_TOPMOST);
    // The first translation's version, not the US English block behind it; then the agent's notice.
    EXPECT_EQ(L"Version 9.8.7.6 test, 64 bit\r\n" + AgentCopyright(r.folder.Path() + L"KVNXST.exe"),
              ItemText(hAbout, IDC_ABOUT_VERSION));
    EXPECT_EQ(L"Computer name: PC-7\r\n"
              L"Authentication: Password\r\n"
              L"Password set: Yes\r\n"
              L"Listening port: 6129\r\n"
              L"The remote control service runs as an application.\r\n"
              L"IPv4 addresses:\r\n10.0.0.1  10.0.0.2\r\n"
              L"IPv6 addresses:\r\n"
              L"Domain: (none)\r\n"
              L"Service version: \r\n"
              L"Service started: \r\n"
              L"Logged-on user: \r\n"
              L"Session: Session 1",
              ItemText(hAbout, IDC_ABOUT_INFO));

    // The uidriver program finds the box on the agent's desktop, reads it and clicks the copy
    // button, which copies the block the list shows.
    const std::wstring box = Hex(hAbout);
    EXPECT_EQ(std::make_pair(DWORD{0}, Narrow(box) + "\n"),
              Driver({L"find", L"--title", L"About Kestrova Vexa Remote Control", L"--desktop",
                      r.desktop.Name(), L"--shown"}));
    const auto text = Driver({L"text", box, std::to_wstring(IDC_ABOUT_INFO)});
    EXPECT_EQ(0u, text.first);
    EXPECT_EQ(0u, text.second.find("Computer name: PC-7")) << text.second;
    EXPECT_EQ(0u, Driver({L"click", box, std::to_wstring(IDC_ABOUT_COPY)}).first);
    // The click is posted: the copy lands a moment later.
    const std::wstring info = ItemText(hAbout, IDC_ABOUT_INFO);
    std::wstring copied;
    for (const ULONGLONG end = GetTickCount64() + kE2eWait; copied != info && GetTickCount64() < end;
         Sleep(20))
        copied = kvui::ClipboardText().value_or(L"");
    EXPECT_EQ(info, copied);
    // A control that is not there fails; a command that makes no sense is a usage error.
    EXPECT_EQ(1u, Driver({L"click", box, L"4242"}).first);
    EXPECT_EQ(2u, Driver({L"frobnicate"}).first);

    SendMessageW(hAbout, WM_TIMER, KV_ABOUT_TIMER, 0);
    EXPECT_TRUE(kvui::WaitUntilGone(hAbout, kE2eWait)) << r.Story();
    EXPECT_TRUE(r.WaitForLog("TRACE", "KVNXSTWindow", "CTaskBarWindow::OpenAbout exiting.")) << r.Story();
    EXPECT_TRUE(IsWindow(hTray));
    EXPECT_EQ(0, r.sim.Finish()) << r.sim.Errors() << r.Story();
}

TEST(AboutBox, KeepsTheTemplatesVersionWithoutTheServiceProgramAndClosesWhenLeft)
{
    Resident r;
    ASSERT_TRUE(r.Launch());
    const HWND hTray = r.TrayWindow();
    ASSERT_NE(nullptr, hTray);

    const HWND hAbout = OpenAbout(r, hTray);
    ASSERT_NE(nullptr, hAbout) << r.Story();
    EXPECT_EQ(L"Version unknown", ItemText(hAbout, IDC_ABOUT_VERSION));
    EXPECT_EQ(0u, ItemText(hAbout, IDC_ABOUT_INFO).find(L"Computer name: kvnxs-sim\r\n"));

    // The box has the desktop's foreground, as after the user's menu click; then another window
    // takes the activation, and the box goes.
    HWND hOther = nullptr;
    r.shell.Run(
        [&](FakeShell&)
        {
            SetForegroundWindow(hAbout);
            hOther = CreateWindowExW(0, L"STATIC", L"other", WS_POPUP | WS_VISIBLE, 0, 0, 50, 50, nullptr,
                                     nullptr, nullptr, nullptr);
            SetForegroundWindow(hOther);
        });
    ASSERT_NE(nullptr, hOther);
    EXPECT_TRUE(kvui::WaitUntilGone(hAbout, kE2eWait)) << r.Story();
    r.shell.Run([&](FakeShell&) { DestroyWindow(hOther); });
    EXPECT_EQ(0, r.sim.Finish()) << r.sim.Errors() << r.Story();
}
