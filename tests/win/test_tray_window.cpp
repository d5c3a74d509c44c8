// The tray window object in this process, against a stand-in for the shell's notification area on
// a desktop of the test's own: the tray icon and its balloons, the window reaching the shell from
// another thread, and the connect/disconnect notice's sound and when it closes. Which picture
// shows when is the host's (test_trayicon.cpp); the records that move the icon and the notices'
// texts are driven end to end (test_resident_e2e.cpp, test_notice_e2e.cpp).
#include "fake_shell.h"
#include "parked_tray_window.h"
#include "test_agent_support.h"
#include "test_log_capture.h"

#include "KvSystemApi.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>

using namespace kvtest;

namespace
{

// The notice's user, whether its sounds play, and what it asked for: each alias played with the
// flags it must use, each beep.
std::wstring g_soundUser, g_soundCalls;
BOOL g_bSoundPlays = TRUE;

class TrayWindow : public ::testing::Test
{
protected:
    // The test's thread moves to a desktop of its own. Another thread stays where the process
    // started: Wine closes a desktop that no thread is on, and this process's windows hang under that
    // desktop's window whichever desktop they are on.
    static void SetUpTestSuite()
    {
        s_hRelease = CreateEventW(nullptr, TRUE, FALSE, nullptr);
        s_keeper = std::thread(
            []
            {
                GetDesktopWindow();
                WaitForSingleObject(s_hRelease, INFINITE);
            });
        s_desktop = new TestDesktop;
        ASSERT_TRUE(s_desktop->SetOnThisThread());
        // The desktop's own shell starts with its first window; the stand-in must come after it.
        GetDesktopWindow();
        for (int i = 0; i < 500 && FindWindowW(L"Shell_TrayWnd", nullptr) == nullptr; ++i)
            Sleep(10);
    }
    static void TearDownTestSuite()
    {
        SetEvent(s_hRelease);
        s_keeper.join();
        CloseHandle(s_hRelease);
        delete s_desktop;
    }

    void SetUp() override
    {
        ASSERT_TRUE(m_log.Configured());
        m_shell = std::make_unique<FakeShell>();
        ASSERT_TRUE(m_shell->InFront()) << "another shell window answers the icon calls";
        g_bOneTimeSession = 0;
        m_tray = std::make_unique<ParkedTrayWindow>();
        ASSERT_TRUE(m_tray->Ready());
        m_hWnd = m_tray->window->Window();
        m_settings.bTrayIcon = 1;
        KvCopyString(m_settings.szCaption, L"Vexa");
        m_icon = std::make_unique<CTrayIcon>();
        m_icon->Create(m_hWnd, true);
        m_info.dwConnections = 1;
        m_info.dwTrayIcon = 1;
        m_settings.bNotifyDlg = 1;
        m_settings.bNotifyDisconnect = 1;
        m_settings.dwNotifyDisplayTime = 5;
        m_settings.dwIdleTrayIcon = 1;
    }

    KvTrayInputs In() const { return KvTrayInputs{&m_settings, 0, 1, 1}; }
    bool Held() const { return m_shell->icons.count(KV_TRAY_ICON_ID) != 0; }
    const FakeShell::Icon& HeldIcon() { return m_shell->icons[KV_TRAY_ICON_ID]; }
    bool RetryTimerSet() const { return KillTimer(m_hWnd, KV_TIMER_TRAY_RETRY) != FALSE; }
    size_t Logged(const std::string& message) const { return m_log.Count("INFO", "KVNXSTWindow", message); }

    // Hands the window the blocks as the connection thread does, opens a notice of this kind the
    // way that thread does, and lets it play its sound.
    HWND Open(int nKind)
    {
        CTaskBarWindow& w = *m_tray->window;
        w.StoreConnectInfo(m_info);
        w.StoreSettings(m_settings);
        void (CTaskBarWindow::*const open[])() = {nullptr, &CTaskBarWindow::NotifyConnect,
                                                  &CTaskBarWindow::NotifyDisconnect,
                                                  &CTaskBarWindow::NotifyAll};
        (w.*open[nKind])();
        ParkedTrayWindow::Pump(300);
        EXPECT_EQ(nKind, w.NoticeKind());
        return w.NoticeWindow();
    }

    LogCapture m_log;
    std::unique_ptr<FakeShell> m_shell;
    std::unique_ptr<ParkedTrayWindow> m_tray;
    HWND m_hWnd = nullptr;
    MSG_TRAYICON_SETTINGS m_settings = {};
    MSG_TRAYICON_CONNECT_INFO m_info = {};
    std::unique_ptr<CTrayIcon> m_icon;
    static inline TestDesktop* s_desktop = nullptr;
    static inline std::thread s_keeper;
    static inline HANDLE s_hRelease = nullptr;
};

} // namespace

TEST_F(TrayWindow, ARefusedAddIsRetriedOnItsTimerAndAnIconAlreadyThereIsModified)
{
    m_shell->bRefuse = true;
    m_icon->Update(In());
    for (int i = 0; i < 61; ++i)
        m_icon->OnRetryTimer(In());
    for (const char* szAttempt : {"1; next try in 1000", "60; next try in 1000", "62; next try in 60000"})
        EXPECT_EQ(1u, Logged("Adding the tray icon failed, attempt " + std::string(szAttempt) + " ms."));
    EXPECT_TRUE(RetryTimerSet());

    // The shell answers again but still holds our icon (an agent before us, a lost answer), so it
    // refuses every add: the icon is modified instead, and the retries end.
    m_shell->bRefuse = false;
    m_shell->icons[KV_TRAY_ICON_ID] = FakeShell::Icon();
    m_icon->OnRetryTimer(In());
    EXPECT_FALSE(RetryTimerSet());
    EXPECT_EQ(L"Vexa", HeldIcon().tip);
    EXPECT_EQ(WM_KV_TRAY_CALLBACK, HeldIcon().uCallbackMessage);
    EXPECT_EQ(static_cast<UINT>(NIF_MESSAGE | NIF_ICON | NIF_TIP), m_shell->calls.back().uFlags);
    EXPECT_EQ(1u, Logged("The shell already held the tray icon; it was modified instead."));
    EXPECT_EQ(63u, Logged("dwMsg=0 bActive=0"));
    m_icon->Update(In());
    EXPECT_EQ(static_cast<DWORD>(NIM_MODIFY), m_shell->calls.back().dwMessage) << "held from now on";
    EXPECT_EQ(ParkedTrayWindow::kNone, m_tray->Take(WM_SHOW_ONE_TIME_AGENT_BALLON))
        << "not the one-time agent";
}

TEST_F(TrayWindow, BalloonsFollowThePolicyAndAreCut)
{
    m_icon->Update(In());
    CTrayIcon plain;
    plain.Create(m_hWnd, false);
    const size_t nCalls = m_shell->calls.size();
    EXPECT_EQ(1, m_icon->ShowBalloon(L"hidden", 0));
    EXPECT_EQ(0, plain.ShowBalloon(L"no balloons here", 1));
    EXPECT_EQ(nCalls, m_shell->calls.size()) << "nothing reaches the shell";

    EXPECT_EQ(1, m_icon->ShowBalloon(std::wstring(300, L'b').c_str(), 1));
    const FakeShell::Call& balloon = m_shell->calls.back();
    EXPECT_EQ(static_cast<UINT>(NIF_INFO | NIF_REALTIME), balloon.uFlags);
    EXPECT_EQ(std::wstring(255, L'b'), balloon.info);
    EXPECT_EQ(L"Kestrova Vexa Remote Control", balloon.infoTitle);
    EXPECT_EQ(static_cast<DWORD>(NIIF_INFO), balloon.dwInfoFlags);

    // A reconfiguration shows in the tooltip, and as a balloon whose icon says how it stands.
    KvReconfigureNote note;
    wcscpy(note.szText, L"Reconfiguring");
    for (const auto& [dwState, dwInfoFlags] :
         {std::pair<DWORD, DWORD>{0, NIIF_WARNING}, {1, NIIF_INFO}, {7, NIIF_ERROR}})
    {
        note.dwState = dwState;
        EXPECT_EQ(1, m_icon->ShowReconfiguring(note));
        EXPECT_EQ(L"Reconfiguring", m_shell->calls.back().info);
        EXPECT_EQ(dwInfoFlags, m_shell->calls.back().dwInfoFlags) << dwState;
        EXPECT_EQ(L"Reconfiguring", HeldIcon().tip);
    }
    EXPECT_EQ(1, plain.ShowReconfiguring(note));
    EXPECT_EQ(static_cast<UINT>(NIF_TIP), m_shell->calls.back().uFlags);
}

// The connection thread changes the icon and shows the service's texts through the window: every
// call reaches the shell from the window's thread, with the text copied before the caller's is gone.
TEST_F(TrayWindow, OtherThreadsReachTheShellOnlyThroughTheWindowsThread)
{
    IKvTrayLink& link = *m_tray->window;
    std::atomic<bool> bDone{false};
    std::thread connection(
        [&]
        {
            link.StoreSettings(m_settings);
            link.SetIconSelector(2);
            const std::wstring text(L"Reconfiguring");
            link.ShowReconfiguring(0, text.c_str());
            bDone = true;
        });
    ParkedTrayWindow::Pump(5000, [&] { return bDone && m_shell->calls.size() >= 2; });
    connection.join();
    ASSERT_TRUE(Held());
    EXPECT_EQ(L"Reconfiguring", HeldIcon().tip);
    EXPECT_EQ(L"Reconfiguring", m_shell->calls.back().info);
    for (const FakeShell::Call& call : m_shell->calls)
        EXPECT_FALSE(call.bFromOtherThread) << "call " << call.dwMessage;

    // The shell starts again without the icon and says so.
    m_shell->Restart();
    EXPECT_EQ(1, SendMessageW(m_hWnd, RegisterWindowMessageW(L"TaskbarCreated"), 0, 0));
    EXPECT_TRUE(Held());
}

TEST_F(TrayWindow, SoundIsTheLogonOrLogoffAliasABeepWhenItCannotPlayAndNothingForTheSystemOrAQuietService)
{
    const struct
    {
        const char* szCase;
        int nKind;
        const wchar_t* szUser;
        std::uint32_t bQuiet, dwIdleIcon;
        BOOL bPlays;
        const wchar_t* szCalls;
    } cases[] = {
        {"connect", 1, L"alice", 0, 1, TRUE, L"WindowsLogon "},
        {"disconnect", 2, L"alice", 0, 1, TRUE, L"WindowsLogoff "},
        {"no such sound", 1, L"alice", 0, 1, FALSE, L"WindowsLogon beep "},
        {"system account", 1, L"SYSTEM", 0, 1, FALSE, L""},
        {"system account, lower case", 2, L"system", 0, 1, FALSE, L""},
        {"quiet with the normal idle icon", 1, L"alice", 1, 1, FALSE, L""},
        {"quiet but another idle icon", 1, L"alice", 1, 2, TRUE, L"WindowsLogon "},
        {"viewer list", 3, L"alice", 0, 1, TRUE, L""},
    };
    KvSystemApi api = KvDefaultSystemApi();
    api.pfnGetUserNameW = [](LPWSTR lpBuffer, LPDWORD pcch) -> BOOL
    { return wcsncpy_s(lpBuffer, *pcch, g_soundUser.c_str(), _TRUNCATE), TRUE; };
    api.pfnPlaySoundW = [](LPCWSTR pszSound, HMODULE, DWORD fdwSound) -> BOOL
    { return g_soundCalls += pszSound + std::wstring(fdwSound == 0x12002 ? L" " : L"(flags?) "), g_bSoundPlays; };
    api.pfnMessageBeep = [](UINT) -> BOOL { return g_soundCalls += L"beep ", TRUE; };
    KvScopedSystemApi scoped(api);
    for (const auto& c : cases)
    {
        g_soundUser = c.szUser;
        g_bSoundPlays = c.bPlays;
        g_soundCalls.clear();
        m_settings.bQuietWhenIdleIcon = c.bQuiet;
        m_settings.dwIdleTrayIcon = c.dwIdleIcon;
        ASSERT_NE(nullptr, Open(c.nKind)) << c.szCase;
        EXPECT_EQ(c.szCalls, g_soundCalls) << c.szCase;
    }
}

TEST_F(TrayWindow, TimerAndCloseBoxCloseItUnlessItMustStay)
{
    const struct
    {
        const char* szCase;
        std::uint32_t dwConnections, dwSelector, bButton, bKeep;
        bool bStays;
    } cases[] = {
        {"last viewer gone", 0, 2, 0, 0, false},
        {"viewers, normal icon", 1, 1, 0, 0, false},
        {"viewers, normal icon, keep asked", 1, 1, 0, 1, true},
        {"viewers, other icon", 2, 2, 0, 0, true},
        {"viewers, hidden icon", 1, 0, 0, 0, true},
        {"disconnect button", 0, 1, 1, 0, true},
        {"count -1 is no viewer", 0xFFFFFFFF, 2, 0, 0, false},
    };
    for (UINT uMsg : {WM_TIMER, WM_CLOSE})
        for (const auto& c : cases)
        {
            m_info.dwConnections = c.dwConnections;
            m_info.dwTrayIcon = c.dwSelector;
            m_info.bDisconnectButton = c.bButton;
            m_settings.bKeepNotifyOpen = c.bKeep;
            const HWND hNotice = Open(3);
            ASSERT_NE(nullptr, hNotice) << c.szCase;
            SendMessageW(hNotice, uMsg, uMsg == WM_TIMER ? 222 : 0, 0);
            EXPECT_EQ(c.bStays, IsWindow(hNotice) != FALSE)
                << c.szCase << (uMsg == WM_TIMER ? " (timer)" : " (close)");
            EXPECT_EQ(c.bStays ? hNotice : nullptr, m_tray->window->NoticeWindow()) << c.szCase;
        }

    // Display time 0: no timer at all; otherwise the display time's period.
    m_info = {};
    for (std::uint32_t dwSeconds : {0u, 3u})
    {
        m_settings.dwNotifyDisplayTime = dwSeconds;
        const HWND hNotice = Open(2);
        EXPECT_EQ(dwSeconds != 0, KillTimer(hNotice, 222) != FALSE) << "display time " << dwSeconds;
    }
}

TEST(DesktopUserInformation, TheScreenSaverShowsByItsFlagOrItsDesktop)
{
    static const wchar_t* s_szDesktop = L"Default"; // null: the input desktop cannot be opened
    static BOOL s_bScreenSaver = TRUE;
    KvSystemApi api = KvDefaultSystemApi();
    api.pfnGetInputDesktopName = [](wchar_t* szName, DWORD cchName) -> BOOL
    { return s_szDesktop != nullptr && wcsncpy_s(szName, cchName, s_szDesktop, _TRUNCATE) != EINVAL; };
    api.pfnGetScreenSaverRunning = [](BOOL* pbRunning) -> BOOL { return *pbRunning = s_bScreenSaver, TRUE; };
    KvScopedSystemApi scoped(api);
    MSG_TRAYICON_DESKTOP_USER_INFORMATION info = {};
    GetDesktopUserInformation(&info);
    EXPECT_EQ(KV_DESKTOP_OPENED | KV_DESKTOP_SCREEN_SAVER, info.dwState);
    s_szDesktop = L"Screen-saver";
    s_bScreenSaver = FALSE;
    GetDesktopUserInformation(&info);
    EXPECT_EQ(KV_DESKTOP_OPENED | KV_DESKTOP_SCREEN_SAVER, info.dwState);
    EXPECT_EQ(std::wstring(L"Screen-saver"), KvWide(info.szDesktopName));
    s_szDesktop = nullptr;
    GetDesktopUserInformation(&info);
    EXPECT_EQ(KV_DESKTOP_NOT_OPENED, info.dwState);
    EXPECT_EQ(L'\0', info.szDesktopName[0]);
}
