// The resident agent's tray menu, opened as the shell opens it, on the agent's own desktop; its
// exit item ends the agent. When KVNXST_MENU_SHOT names a file (menu_screenshot.sh does), the
// test holds the menu open until the screen has been taken into that file.
#include "resident_agent.h"

#include <gtest/gtest.h>

#include <algorithm>

using namespace kvtest;

namespace
{

constexpr UINT WM_TRAY_CALLBACK = WM_USER + 1;
constexpr UINT IDM_EXIT = 40007;
constexpr UINT IDR_TRAY_MENU = 104;

std::wstring WindowsPath(std::wstring unixPath)
{
    std::replace(unixPath.begin(), unixPath.end(), L'/', L'\\');
    return L"Z:" + unixPath;
}

bool WaitForFile(const std::wstring& path, DWORD ms)
{
    const ULONGLONG end = GetTickCount64() + ms;
    while (GetFileAttributesW(path.c_str()) == INVALID_FILE_ATTRIBUTES)
    {
        if (GetTickCount64() >= end)
            return false;
        Sleep(50);
    }
    return true;
}

// Asks menu_screenshot.sh for the screen and waits until it is taken; true without a request.
::testing::AssertionResult TakeScreenshot()
{
    wchar_t szShot[MAX_PATH] = {};
    if (GetEnvironmentVariableW(L"KVNXST_MENU_SHOT", szShot, MAX_PATH) == 0)
        return ::testing::AssertionSuccess();
    const std::wstring shot = WindowsPath(szShot);
    HANDLE hOpen =
        CreateFileW((shot + L".open").c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr);
    CloseHandle(hOpen);
    if (!WaitForFile(shot + L".taken", kE2eWait))
        return ::testing::AssertionFailure() << "no screenshot taken into " << Narrow(shot);
    return ::testing::AssertionSuccess();
}

} // namespace

TEST(ResidentAgentMenu, RightClickOnTheIconOpensTheMenuAndItsExitEndsTheAgent)
{
    Resident r;
    ASSERT_TRUE(r.Launch());
    const HWND hTray = r.TrayWindow();
    ASSERT_NE(nullptr, hTray);
    ASSERT_TRUE(r.shell.WaitForPicture("idle", kE2eWait)) << r.Story();

    kvui::TrayIcon icon;
    icon.owner.className = L"Kestrova Vexa Tray Icon Class";
    icon.owner.desktop = r.desktop.Name();
    icon.owner.processId = r.agent.Id();
    icon.callbackMessage = WM_TRAY_CALLBACK;
    icon.iconId = kTrayIconId;

    // Only a right click (or the context key, or a left press) opens it; a move does not.
    PostMessageW(hTray, WM_TRAY_CALLBACK, kTrayIconId, WM_MOUSEMOVE);
    HWND hMenu = kvui::OpenTrayMenu(icon, kE2eWait);
    ASSERT_NE(nullptr, hMenu) << r.Story();
    EXPECT_EQ(1u,
              CountMessage(r.LogLines(), "TRACE", "KVNXSTWindow", "CTaskBarWindow::ShowTrayMenu entering."));
    EXPECT_TRUE(TakeScreenshot());

    // Escape closes it without a command; then its exit item tells the service and ends the agent.
    EXPECT_TRUE(kvui::EscapeMenu(hMenu, kE2eWait));
    hMenu = kvui::OpenTrayMenu(icon, kE2eWait);
    ASSERT_NE(nullptr, hMenu) << r.Story();
    const HMENU hLayout = kvui::LoadMenuLayout(ModuleFolder() + L"KVNXSTRES.dll", IDR_TRAY_MENU);
    ASSERT_NE(nullptr, hLayout);
    EXPECT_TRUE(kvui::PickMenuItem(hMenu, IDM_EXIT, hLayout, kE2eWait)) << r.Story();
    DestroyMenu(hLayout);
    r.sim.Play({"expect 40001", "expect-closed"});
    EXPECT_EQ(Code(KV_EXIT_ALREADY_RUNNING), r.agent.Wait(kE2eWait)) << r.Story();
    EXPECT_EQ(0, r.sim.Finish()) << r.sim.Errors() << r.Story();
    EXPECT_FALSE(r.shell.Read().bHeld);
}
