// The tray window's icon, balloons and connection notices in this process, against a stand-in for
// the shell's notification area on a desktop of the test's own.
#include "fake_shell.h"
#include "test_agent_support.h"
#include "test_log_capture.h"

#include "KVNXST.h"
#include "KVNXSTWindow.h"
#include "KvSystemApi.h"
#include "resource.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <iterator>
#include <memory>
#include <string>
#include <thread>
#include <vector>

using namespace kvtest;

namespace
{

constexpr UINT NIF_TIP_ICON_MESSAGE = NIF_MESSAGE | NIF_ICON | NIF_TIP;

std::wstring LoadText(UINT uId)
{
    wchar_t sz[512] = {};
    LoadStringW(g_hResInstance, uId, sz, 512);
    return sz;
}

// A stand-in shell and a tray window on the test's desktop, made and used on one thread there.
struct Rig
{
    std::unique_ptr<FakeShell> shell;
    std::unique_ptr<CTaskBarWindow> window;

    bool Held() const { return shell->icons.count(KV_TRAY_ICON_ID) != 0; }
    const FakeShell::Icon& HeldIcon() { return shell->icons[KV_TRAY_ICON_ID]; }
    // Takes a posted message to the tray window from its queue: its wParam, or -1 when none is there.
    WPARAM TakePosted(UINT uMsg)
    {
        MSG msg;
        if (!PeekMessageW(&msg, window->m_hWnd, uMsg, uMsg, PM_REMOVE))
            return static_cast<WPARAM>(-1);
        return msg.wParam;
    }
};

class TrayIcon : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(m_log.Configured());
        ASSERT_TRUE(m_desktop.Created());
        g_hInstance = GetModuleHandleW(nullptr);
        g_hResInstance = LoadResourceLibraryFrom(ModuleFolder().c_str(), nullptr);
        ASSERT_NE(nullptr, g_hResInstance);
        g_bOneTimeSession = 0;
    }
    void TearDown() override
    {
        FreeLibrary(g_hResInstance);
        g_hResInstance = nullptr;
        g_bOneTimeSession = 0;
    }

    // Runs body on a thread of its own on the test's desktop. The main thread stays where the process
    // started: Wine closes a desktop that no thread is on, and this process's windows hang under
    // that desktop's window whichever desktop they are on.
    template <typename Body> void OnTestDesktop(Body body)
    {
        std::thread(
            [&]
            {
                ASSERT_TRUE(m_desktop.SetOnThisThread());
                // The desktop's own shell starts with its first window; the stand-in must come after it.
                GetDesktopWindow();
                for (int i = 0; i < 500 && FindWindowW(L"Shell_TrayWnd", nullptr) == nullptr; ++i)
                    Sleep(10);
                Rig rig;
                rig.shell = std::make_unique<FakeShell>();
                ASSERT_TRUE(rig.shell->InFront()) << "another shell window answers the icon calls";
                rig.window = std::make_unique<CTaskBarWindow>(1);
                ASSERT_NE(nullptr, rig.window->m_hWnd);
                // The window stays without its threads and its link: its start message is taken away.
                MSG msg;
                while (PeekMessageW(&msg, rig.window->m_hWnd, WM_KV_START, WM_KV_START, PM_REMOVE))
                {
                }
                rig.window->m_bTrayIcon = 1;
                KvCopyString(rig.window->m_Settings.szCaption, L"Vexa");

                body(rig);

                DestroyWindow(rig.window->m_hWnd);
                rig.window.reset();
                while (PeekMessageW(&msg, nullptr, 0, 0, PM_REMOVE))
                {
                }
            })
            .join();
    }

    LogCapture m_log;
    TestDesktop m_desktop;
};

} // namespace

TEST_F(TrayIcon, RefusedAddIsRetriedEverySecondForAMinuteThenEveryMinuteUntilTheShellTakesIt)
{
    OnTestDesktop(
        [&](Rig& r)
        {
            CTaskBarWindow& w = *r.window;
            r.shell->bRefuse = true;
            EXPECT_EQ(1, w.SetTrayIcon());
            for (int i = 0; i < 61; ++i)
                SendMessageW(w.m_hWnd, WM_TIMER, KV_TIMER_TRAY_RETRY, 0);
            EXPECT_EQ(62, w.m_nTrayRetries);
            EXPECT_NE(0u, w.m_uTrayRetryTimer);
            EXPECT_EQ(0, w.m_bTrayIconAdded);
            for (int n = 1; n <= 62; ++n)
                EXPECT_EQ(1u, m_log.Count("INFO", "KVNXSTWindow",
                                          "Adding the tray icon failed, attempt " + std::to_string(n) +
                                              "; next try in " + (n <= 60 ? "1000" : "60000") + " ms."))
                    << n;

            r.shell->bRefuse = false;
            SendMessageW(w.m_hWnd, WM_TIMER, KV_TIMER_TRAY_RETRY, 0);
            EXPECT_EQ(1, w.m_bTrayIconAdded);
            EXPECT_EQ(0, w.m_nTrayRetries);
            EXPECT_EQ(0u, w.m_uTrayRetryTimer);
            ASSERT_TRUE(r.Held());
            EXPECT_EQ(WM_KV_TRAY_CALLBACK, r.HeldIcon().uCallbackMessage);
            const FakeShell::Call& add = r.shell->calls.back();
            EXPECT_EQ(static_cast<DWORD>(NIM_ADD), add.dwMessage);
            EXPECT_EQ(w.m_hWnd, add.hWnd);
            EXPECT_EQ(NIF_TIP_ICON_MESSAGE, add.uFlags);
            EXPECT_EQ(63u, m_log.Count("INFO", "KVNXSTWindow", "dwMsg=0 bActive=0"));
            // The one-time balloon is only for the one-time agent.
            EXPECT_EQ(static_cast<WPARAM>(-1), r.TakePosted(WM_SHOW_ONE_TIME_AGENT_BALLON));
        });
}

TEST_F(TrayIcon, ExplorerRestartAddsTheIconAgain)
{
    OnTestDesktop(
        [&](Rig& r)
        {
            CTaskBarWindow& w = *r.window;
            w.SetTrayIcon();
            ASSERT_TRUE(r.Held());
            r.shell->Restart();
            EXPECT_EQ(1, SendMessageW(w.m_hWnd, RegisterWindowMessageW(L"TaskbarCreated"), 0, 0));
            EXPECT_TRUE(r.Held());
            EXPECT_EQ(1, w.m_bTrayIconAdded);
            EXPECT_EQ(static_cast<DWORD>(NIM_ADD), r.shell->calls.back().dwMessage);
        });
}

TEST_F(TrayIcon, PolicyDecidesWhenTheIconShowsAndWhichPicture)
{
    OnTestDesktop(
        [&](Rig& r)
        {
            CTaskBarWindow& w = *r.window;
            const auto connected = FakeShell::IconBits(w.m_hIconConnected);
            const auto idle = FakeShell::IconBits(w.m_hIconIdle);
            const auto pending = FakeShell::IconBits(w.m_hIconPending);
            const auto custom = FakeShell::IconBits(w.m_hIconExtra);
            ASSERT_FALSE(connected.empty());
            ASSERT_TRUE(connected != idle && idle != pending && idle != custom) << "the pictures must differ";

            const struct
            {
                const char* szCase;
                std::uint32_t bTrayIcon;
                int nConnections;
                int bOneTime;
                std::uint32_t uSelector, bCustomIdleIcon;
                bool bHeld;
                const std::vector<std::uint8_t>* pPicture;
            } steps[] = {
                {"always, idle", 1, 0, 0, 1, 0, true, &idle},
                {"always, viewed", 1, 2, 0, 1, 0, true, &connected},
                {"always, idle, custom idle icon", 1, 0, 0, 1, 1, true, &custom},
                {"always, idle, selector 2", 1, 0, 0, 2, 1, true, &pending},
                {"while viewed, idle", 2, 0, 0, 1, 0, false, nullptr},
                {"while viewed, first viewer", 2, 1, 0, 1, 0, true, &connected},
                {"while viewed, viewer gone", 2, 0, 0, 1, 0, false, nullptr},
                {"never", 0, 1, 0, 1, 0, false, nullptr},
                {"never, one-time agent", 0, 0, 1, 1, 0, true, &idle},
            };
            for (const auto& s : steps)
            {
                w.m_bTrayIcon = s.bTrayIcon;
                w.m_nConnections = s.nConnections;
                g_bOneTimeSession = s.bOneTime;
                w.m_uTrayIconSelector = s.uSelector;
                w.m_Settings.bCustomIdleIcon = s.bCustomIdleIcon;
                w.SetTrayIcon();
                EXPECT_EQ(s.bHeld, r.Held()) << s.szCase;
                EXPECT_EQ(s.bHeld ? 1 : 0, w.m_bTrayIconAdded) << s.szCase;
                if (s.pPicture != nullptr && r.Held())
                {
                    EXPECT_TRUE(*s.pPicture == r.HeldIcon().iconBits) << s.szCase;
                }
            }
            // The one-time agent announces itself once its icon is in.
            EXPECT_EQ(0u, r.TakePosted(WM_SHOW_ONE_TIME_AGENT_BALLON));
        });
}

TEST_F(TrayIcon, TooltipCarriesTheHeadsAndIsCutToTheShellsField)
{
    OnTestDesktop(
        [&](Rig& r)
        {
            CTaskBarWindow& w = *r.window;
            const std::wstring oneTime = LoadText(IDS_TOOLTIP_ONETIME),
                               note = LoadText(IDS_SERVICE_FLAG_NOTE);
            ASSERT_FALSE(oneTime.empty() || note.empty());
            const std::wstring longCaption(200, L'c');
            const struct
            {
                int bBalloons, bOneTime;
                std::uint32_t bTooltipNote;
                std::wstring caption, expected;
            } cases[] = {
                {1, 0, 0, L"Vexa", L"Vexa"},
                {1, 1, 1, L"Vexa", oneTime + note + L"\r\nVexa"},
                {1, 0, 0, longCaption, longCaption.substr(0, 123) + L"..."},
                {0, 0, 1, longCaption, (note + L"\r\n" + longCaption).substr(0, 59) + L"..."},
            };
            for (const auto& c : cases)
            {
                w.m_bShellBalloons = c.bBalloons;
                g_bOneTimeSession = c.bOneTime;
                w.m_Settings.bTooltipNote = c.bTooltipNote;
                KvCopyString(w.m_Settings.szCaption, c.caption.c_str());
                w.SetTrayIcon();
                ASSERT_TRUE(r.Held());
                EXPECT_EQ(c.expected, r.HeldIcon().tip);
            }
            // A caption that fills its field without a terminator is read no further than the field.
            std::fill(std::begin(w.m_Settings.szCaption), std::end(w.m_Settings.szCaption), u'x');
            w.m_Settings.bTooltipNote = 0;
            g_bOneTimeSession = 0;
            w.m_bShellBalloons = 1;
            w.SetTrayIcon();
            EXPECT_EQ(std::wstring(123, L'x') + L"...", r.HeldIcon().tip);
        });
}

TEST_F(TrayIcon, BalloonsFollowThePolicyAndAreCut)
{
    OnTestDesktop(
        [&](Rig& r)
        {
            CTaskBarWindow& w = *r.window;
            w.SetTrayIcon();
            const size_t nCalls = r.shell->calls.size();

            w.m_bTrayIcon = 0;
            EXPECT_EQ(1, w.ShowTrayBalloonMsg(L"hidden"));
            w.m_bTrayIcon = 1;
            w.m_bShellBalloons = 0;
            EXPECT_EQ(0, w.ShowTrayBalloonMsg(L"no balloons here"));
            EXPECT_EQ(0, w.ShowTrayBalloonMsg(nullptr));
            EXPECT_EQ(nCalls, r.shell->calls.size()) << "nothing reaches the shell";
            EXPECT_EQ(3u, m_log.Count("DEBUG", "KVNXSTWindow", "ShowTrayBalloon"));

            w.m_bShellBalloons = 1;
            EXPECT_EQ(1, w.ShowTrayBalloonMsg(std::wstring(300, L'b').c_str()));
            const FakeShell::Call& balloon = r.shell->calls.back();
            EXPECT_EQ(static_cast<DWORD>(NIM_MODIFY), balloon.dwMessage);
            EXPECT_EQ(static_cast<UINT>(NIF_INFO | NIF_REALTIME), balloon.uFlags);
            EXPECT_EQ(std::wstring(255, L'b'), balloon.info);
            EXPECT_EQ(L"Kestrova Vexa Remote Control", balloon.infoTitle);
            EXPECT_EQ(static_cast<DWORD>(NIIF_INFO), balloon.dwInfoFlags);

            // A reconfiguration shows in the tooltip, and as a balloon whose icon says how it stands.
            const struct
            {
                DWORD dwState;
                DWORD dwInfoFlags;
            } states[] = {{0, NIIF_WARNING}, {1, NIIF_INFO}, {7, NIIF_ERROR}};
            for (const auto& s : states)
            {
                EXPECT_EQ(1, w.SendTrayMsgServerReconfiguring(s.dwState, L"Reconfiguring"));
                const FakeShell::Call& call = r.shell->calls.back();
                EXPECT_EQ(L"Reconfiguring", call.info);
                EXPECT_EQ(s.dwInfoFlags, call.dwInfoFlags) << s.dwState;
                EXPECT_EQ(L"Reconfiguring", r.HeldIcon().tip);
            }
            w.m_bShellBalloons = 0;
            EXPECT_EQ(1, w.SendTrayMsgServerReconfiguring(0, L"Plain"));
            EXPECT_EQ(static_cast<UINT>(NIF_TIP), r.shell->calls.back().uFlags);
            EXPECT_EQ(L"Plain", r.HeldIcon().tip);
        });
}

TEST_F(TrayIcon, ConnectAndDisconnectNoticesOpenTheDialogAsTheSettingsSay)
{
    OnTestDesktop(
        [&](Rig& r)
        {
            CTaskBarWindow& w = *r.window;
            const WPARAM none = static_cast<WPARAM>(-1);
            const struct
            {
                const char* szCase;
                int nMode, nConnections;
                std::uint32_t bNotifyDlg, bNotifyMode2;
                WPARAM posted;
            } connects[] = {
                {"notices on", 1, 1, 1, 0, 0},
                {"notices off", 1, 1, 0, 1, none},
                {"notices off, mode 2 notices on", 2, 1, 0, 1, 0},
                {"notices off, mode 2 notices off", 2, 1, 0, 0, none},
                {"notices off, no mode", 0, 1, 0, 0, 0},
                {"nobody connected", 1, 0, 1, 1, none},
            };
            for (const auto& c : connects)
            {
                w.m_nMode = c.nMode;
                w.m_nConnections = c.nConnections;
                w.m_bNotifyDlg = c.bNotifyDlg;
                w.m_bNotifyMode2 = c.bNotifyMode2;
                w.m_nNotifyKind = 0;
                w.NotifyConnect();
                EXPECT_EQ(c.posted, r.TakePosted(WM_KV_SHOW_NOTIFY_DLG)) << c.szCase;
                EXPECT_EQ(c.posted == none ? 0 : KV_NOTIFY_CONNECT, w.m_nNotifyKind) << c.szCase;
                ASSERT_TRUE(r.Held()) << c.szCase;
                EXPECT_TRUE(r.HeldIcon().iconBits ==
                            FakeShell::IconBits(c.nConnections > 0 ? w.m_hIconConnected : w.m_hIconIdle))
                    << c.szCase;
            }

            // The last viewer leaves: the notice is recreated when asked for, the desktop put back, the icon
            // shows idle again.
            w.m_nMode = 1;
            w.m_nConnections = 0;
            w.m_bNotifyDlg = 1;
            w.m_bNotifyDisconnect = 1;
            w.m_nDesktopResets = 3;
            w.m_bFirstNotify = 0;
            w.NotifyDisconnect();
            EXPECT_EQ(0u, r.TakePosted(WM_KV_RECREATE_NOTIFY_DLG));
            EXPECT_EQ(KV_NOTIFY_DISCONNECT, w.m_nNotifyKind);
            EXPECT_EQ(1, w.m_bFirstNotify);
            EXPECT_EQ(1, w.m_nDesktopResets);
            EXPECT_EQ(
                1u, m_log.Count("TRACE", "DesktopOptions", "CTaskBarWindow::RetoreDesktopOptions entering."));
            EXPECT_TRUE(r.HeldIcon().iconBits == FakeShell::IconBits(w.m_hIconIdle));

            w.m_bNotifyDisconnect = 0;
            w.m_nConnections = 1;
            w.NotifyDisconnect();
            EXPECT_EQ(none, r.TakePosted(WM_KV_RECREATE_NOTIFY_DLG));
            EXPECT_EQ(
                1u, m_log.Count("TRACE", "DesktopOptions", "CTaskBarWindow::RetoreDesktopOptions entering."));

            w.NotifyAll();
            EXPECT_EQ(1u, r.TakePosted(WM_KV_SHOW_NOTIFY_DLG));
            EXPECT_EQ(KV_NOTIFY_ALL, w.m_nNotifyKind);
        });
}

namespace
{

const wchar_t* g_szFakeDesktop = nullptr; // null: the input desktop cannot be opened
BOOL g_bFakeScreenSaver = FALSE;

BOOL FakeInputDesktopName(wchar_t* szName, DWORD cchName)
{
    if (g_szFakeDesktop == nullptr)
    {
        SetLastError(ERROR_ACCESS_DENIED);
        return FALSE;
    }
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
    OnTestDesktop(
        [&](Rig& r)
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
                {L"Default", FALSE, KV_DESKTOP_OPENED, L"Default"},
                {L"Default", TRUE, KV_DESKTOP_OPENED | KV_DESKTOP_SCREEN_SAVER, L"Default"},
                {L"Screen-saver", FALSE, KV_DESKTOP_OPENED | KV_DESKTOP_SCREEN_SAVER, L"Screen-saver"},
                {L"Winlogon", FALSE, KV_DESKTOP_OPENED, L"Winlogon"},
                {nullptr, FALSE, KV_DESKTOP_NOT_OPENED, L""},
                {nullptr, TRUE, KV_DESKTOP_NOT_OPENED | KV_DESKTOP_SCREEN_SAVER, L""},
                {longName.c_str(), FALSE, KV_DESKTOP_OPENED, longName.substr(0, 259)},
            };
            wcsncpy(g_szUserName, L"alice", MAX_PATH);
            for (const auto& c : cases)
            {
                g_szFakeDesktop = c.szDesktop;
                g_bFakeScreenSaver = c.bScreenSaver;
                MSG_TRAYICON_DESKTOP_USER_INFORMATION info;
                std::memset(&info, 0xAB, sizeof info);
                r.window->GetDesktopUserInformation(&info);
                EXPECT_EQ(c.dwState, info.dwState) << c.name.size();
                EXPECT_EQ(c.name, std::wstring(KvWide(info.szDesktopName))) << c.name.size();
                EXPECT_EQ(std::wstring(L"alice"), KvWide(info.szUserName));
            }
            g_szUserName[0] = L'\0';
        });
}
