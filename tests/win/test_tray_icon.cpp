// The tray window's icon and balloons in this process, against a stand-in for the shell's
// notification area on a desktop of the test's own. Which picture shows when is the host's
// (test_trayicon.cpp), and the records that move the icon and open the notices reach it end to end
// (test_resident_e2e.cpp).
#include "fake_shell.h"
#include "parked_tray_window.h"
#include "test_agent_support.h"
#include "test_log_capture.h"

#include "KvSystemApi.h"
#include "resource.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

using namespace kvtest;

namespace
{

class TrayIcon : public ::testing::Test
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
        m_window = m_tray->window.get();
        m_window->m_bTrayIcon = 1;
        KvCopyString(m_window->m_Settings.szCaption, L"Vexa");
    }
    void TearDown() override
    {
        m_tray.reset();
        m_shell.reset();
        g_bOneTimeSession = 0;
    }

    bool Held() const { return m_shell->icons.count(KV_TRAY_ICON_ID) != 0; }
    const FakeShell::Icon& HeldIcon() { return m_shell->icons[KV_TRAY_ICON_ID]; }
    WPARAM TakePosted(UINT uMsg) { return m_tray->Take(uMsg); }

    LogCapture m_log;
    std::unique_ptr<FakeShell> m_shell;
    std::unique_ptr<ParkedTrayWindow> m_tray;
    CTaskBarWindow* m_window = nullptr;
    static TestDesktop* s_desktop;
    static std::thread s_keeper;
    static HANDLE s_hRelease;
};

TestDesktop* TrayIcon::s_desktop = nullptr;
std::thread TrayIcon::s_keeper;
HANDLE TrayIcon::s_hRelease = nullptr;

} // namespace

TEST_F(TrayIcon, RefusedAddIsRetriedEverySecondForAMinuteThenEveryMinuteAndComesBackAfterARestart)
{
    CTaskBarWindow& w = *m_window;
    m_shell->bRefuse = true;
    EXPECT_EQ(1, w.SetTrayIcon());
    for (int i = 0; i < 61; ++i)
        SendMessageW(w.m_hWnd, WM_TIMER, KV_TIMER_TRAY_RETRY, 0);
    EXPECT_EQ(62, w.m_nTrayRetries);
    EXPECT_NE(0u, w.m_uTrayRetryTimer);
    for (int n = 1; n <= 62; ++n)
        EXPECT_EQ(1u, m_log.Count("INFO", "KVNXSTWindow",
                                  "Adding the tray icon failed, attempt " + std::to_string(n) +
                                      "; next try in " + (n <= 60 ? "1000" : "60000") + " ms."))
            << n;

    m_shell->bRefuse = false;
    SendMessageW(w.m_hWnd, WM_TIMER, KV_TIMER_TRAY_RETRY, 0);
    EXPECT_EQ(1, w.m_bTrayIconAdded);
    EXPECT_EQ(0, w.m_nTrayRetries);
    EXPECT_EQ(0u, w.m_uTrayRetryTimer);
    ASSERT_TRUE(Held());
    EXPECT_EQ(WM_KV_TRAY_CALLBACK, HeldIcon().uCallbackMessage);
    EXPECT_EQ(w.m_hWnd, m_shell->calls.back().hWnd);
    EXPECT_EQ(static_cast<UINT>(NIF_MESSAGE | NIF_ICON | NIF_TIP), m_shell->calls.back().uFlags);
    EXPECT_EQ(63u, m_log.Count("INFO", "KVNXSTWindow", "dwMsg=0 bActive=0"));
    EXPECT_EQ(static_cast<WPARAM>(-1), TakePosted(WM_SHOW_ONE_TIME_AGENT_BALLON)) << "not the one-time agent";

    // The shell starts again without the icon and says so.
    m_shell->Restart();
    EXPECT_EQ(1, SendMessageW(w.m_hWnd, RegisterWindowMessageW(L"TaskbarCreated"), 0, 0));
    EXPECT_TRUE(Held());
    EXPECT_EQ(1, w.m_bTrayIconAdded);
}

TEST_F(TrayIcon, TooltipCarriesTheHeadsAndIsCutToTheShellsField)
{
    CTaskBarWindow& w = *m_window;
    const std::wstring oneTime = ResourceText(g_hResInstance, IDS_TOOLTIP_ONETIME),
                       note = ResourceText(g_hResInstance, IDS_SERVICE_FLAG_NOTE);
    ASSERT_FALSE(oneTime.empty() || note.empty());
    g_bOneTimeSession = 1;
    w.m_Settings.bTooltipNote = 1;
    w.SetTrayIcon();
    EXPECT_EQ(oneTime + L"\r\n" + note + L"\r\nVexa", HeldIcon().tip);

    // Without balloons the field is 64 units.
    g_bOneTimeSession = 0;
    w.m_bShellBalloons = 0;
    KvCopyString(w.m_Settings.szCaption, std::wstring(200, L'c').c_str());
    w.SetTrayIcon();
    EXPECT_EQ((note + L"\r\n" + std::wstring(200, L'c')).substr(0, 59) + L"...", HeldIcon().tip);
}

TEST_F(TrayIcon, BalloonsFollowThePolicyAndAreCut)
{
    CTaskBarWindow& w = *m_window;
    w.SetTrayIcon();
    const size_t nCalls = m_shell->calls.size();
    w.m_bTrayIcon = 0;
    EXPECT_EQ(1, w.ShowTrayBalloonMsg(L"hidden"));
    w.m_bTrayIcon = 1;
    w.m_bShellBalloons = 0;
    EXPECT_EQ(0, w.ShowTrayBalloonMsg(L"no balloons here"));
    EXPECT_EQ(0, w.ShowTrayBalloonMsg(nullptr));
    EXPECT_EQ(nCalls, m_shell->calls.size()) << "nothing reaches the shell";
    EXPECT_EQ(3u, m_log.Count("DEBUG", "KVNXSTWindow", "ShowTrayBalloon"));

    w.m_bShellBalloons = 1;
    EXPECT_EQ(1, w.ShowTrayBalloonMsg(std::wstring(300, L'b').c_str()));
    const FakeShell::Call& balloon = m_shell->calls.back();
    EXPECT_EQ(static_cast<UINT>(NIF_INFO | NIF_REALTIME), balloon.uFlags);
    EXPECT_EQ(std::wstring(255, L'b'), balloon.info);
    EXPECT_EQ(L"Kestrova Vexa Remote Control", balloon.infoTitle);
    EXPECT_EQ(static_cast<DWORD>(NIIF_INFO), balloon.dwInfoFlags);

    // A reconfiguration shows in the tooltip, and as a balloon whose icon says how it stands.
    const struct
    {
        DWORD dwState, dwInfoFlags;
    } states[] = {{0, NIIF_WARNING}, {1, NIIF_INFO}, {7, NIIF_ERROR}};
    for (const auto& s : states)
    {
        EXPECT_EQ(1, w.SendTrayMsgServerReconfiguring(s.dwState, L"Reconfiguring"));
        EXPECT_EQ(L"Reconfiguring", m_shell->calls.back().info);
        EXPECT_EQ(s.dwInfoFlags, m_shell->calls.back().dwInfoFlags) << s.dwState;
        EXPECT_EQ(L"Reconfiguring", HeldIcon().tip);
    }
    w.m_bShellBalloons = 0;
    EXPECT_EQ(1, w.SendTrayMsgServerReconfiguring(0, L"Plain"));
    EXPECT_EQ(static_cast<UINT>(NIF_TIP), m_shell->calls.back().uFlags);
    EXPECT_EQ(L"Plain", HeldIcon().tip);
}

namespace
{

const wchar_t* g_szFakeDesktop = nullptr; // null: the input desktop cannot be opened
BOOL g_bFakeScreenSaver = FALSE;

BOOL FakeInputDesktopName(wchar_t* szName, DWORD cchName)
{
    if (g_szFakeDesktop == nullptr)
        return FALSE;
    wcsncpy(szName, g_szFakeDesktop, cchName - 1);
    szName[cchName - 1] = L'\0';
    return TRUE;
}

BOOL FakeScreenSaverRunning(BOOL* pbRunning)
{
    *pbRunning = g_bFakeScreenSaver;
    return TRUE;
}

} // namespace

TEST_F(TrayIcon, DesktopUserInformationReportsTheInputDesktopAndTheScreenSaver)
{
    KvSystemApi api = KvDefaultSystemApi();
    api.pfnGetInputDesktopName = FakeInputDesktopName;
    api.pfnGetScreenSaverRunning = FakeScreenSaverRunning;
    KvScopedSystemApi scoped(api);
    const std::wstring longName(300, L'd');
    const struct
    {
        const wchar_t* szDesktop;
        BOOL bScreenSaver;
        std::uint32_t dwState;
        std::wstring name;
    } cases[] = {
        {L"Default", TRUE, KV_DESKTOP_OPENED | KV_DESKTOP_SCREEN_SAVER, L"Default"},
        {L"Screen-saver", FALSE, KV_DESKTOP_OPENED | KV_DESKTOP_SCREEN_SAVER, L"Screen-saver"},
        {nullptr, FALSE, KV_DESKTOP_NOT_OPENED, L""},
        {longName.c_str(), FALSE, KV_DESKTOP_OPENED, longName.substr(0, 259)},
    };
    wcsncpy(g_szUserName, L"alice", MAX_PATH);
    for (const auto& c : cases)
    {
        g_szFakeDesktop = c.szDesktop;
        g_bFakeScreenSaver = c.bScreenSaver;
        MSG_TRAYICON_DESKTOP_USER_INFORMATION info;
        std::memset(&info, 0xAB, sizeof info);
        m_window->GetDesktopUserInformation(&info);
        EXPECT_EQ(c.dwState, info.dwState) << c.name.size();
        EXPECT_EQ(c.name, std::wstring(KvWide(info.szDesktopName)));
        EXPECT_EQ(std::wstring(L"alice"), KvWide(info.szUserName));
    }
    g_szUserName[0] = L'\0';
}
