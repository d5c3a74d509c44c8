// Logoff, lock and the screen-saver kill. Under Wine ExitWindowsEx ends the whole Wine session and
// there is neither a lock nor a screen-saver desktop, so the system table answers for them.
#include "DesktopOptions.h"
#include "KvSystemApi.h"
#include "UtilScreenSaver.h"
#include "test_log_capture.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using kvtest::LogCapture;

namespace
{

struct FakeState
{
    std::vector<std::pair<UINT, DWORD>> exitCalls;
    BOOL bExitResult = TRUE;
    int nLockCalls = 0;
    BOOL bLockResult = TRUE;
    DWORD dwLockError = 0;
    HWND hForeground = nullptr;
    bool bSaverDesktop = false;
    std::vector<HWND> saverWindows;
    std::wstring openedName;
    ACCESS_MASK openedAccess = 0;
    BOOL bOpenedInherit = TRUE;
    HDESK hOpened = nullptr;
    HDESK hEnumerated = nullptr;
};

FakeState g_fake;

BOOL WINAPI FakeExitWindowsEx(UINT uFlags, DWORD dwReason)
{
    g_fake.exitCalls.emplace_back(uFlags, dwReason);
    return g_fake.bExitResult;
}

BOOL WINAPI FakeLockWorkStation()
{
    ++g_fake.nLockCalls;
    SetLastError(g_fake.dwLockError);
    return g_fake.bLockResult;
}

HWND WINAPI FakeGetForegroundWindow()
{
    return g_fake.hForeground;
}

// A table whose session actions are all fakes: nothing here may end the test's session.
class SessionActionTest : public ::testing::Test
{
protected:
    SessionActionTest() : m_api(FakeTable()), m_scoped(m_api) { g_fake = FakeState(); }

    static KvSystemApi FakeTable()
    {
        KvSystemApi api = KvDefaultSystemApi();
        api.pfnExitWindowsEx = FakeExitWindowsEx;
        api.pfnLockWorkStation = FakeLockWorkStation;
        api.pfnGetForegroundWindow = FakeGetForegroundWindow;
        return api;
    }

    KvSystemApi m_api;
    KvScopedSystemApi m_scoped;
};

// A window of this thread, hidden until shown, whose posted messages the test reads back.
class MessageWindow
{
public:
    MessageWindow()
        : m_hWnd(CreateWindowExW(0, L"STATIC", L"kv-test", WS_POPUP, 0, 0, 10, 10, nullptr, nullptr,
                                 GetModuleHandleW(nullptr), nullptr))
    {
    }
    ~MessageWindow() { DestroyWindow(m_hWnd); }
    MessageWindow(const MessageWindow&) = delete;
    MessageWindow& operator=(const MessageWindow&) = delete;

    HWND Get() const { return m_hWnd; }

    // The WM_SYSCOMMAND wParams waiting in the queue for this window, taken out.
    std::vector<WPARAM> TakeSysCommands()
    {
        std::vector<WPARAM> commands;
        MSG msg;
        while (PeekMessageW(&msg, m_hWnd, WM_SYSCOMMAND, WM_SYSCOMMAND, PM_REMOVE))
            commands.push_back(msg.wParam);
        return commands;
    }

private:
    HWND m_hWnd;
};

// --- Logoff

TEST_F(SessionActionTest, LogoffAsksForLogoffOrForcedLogoff)
{
    LogCapture log;
    EXPECT_NE(0, Logoff(0));
    EXPECT_NE(0, Logoff(1));
    // Any non-zero value forces.
    EXPECT_NE(0, Logoff(-3));
    ASSERT_EQ(3u, g_fake.exitCalls.size());
    EXPECT_EQ(static_cast<UINT>(EWX_LOGOFF), g_fake.exitCalls[0].first);
    EXPECT_EQ(static_cast<UINT>(EWX_FORCE), g_fake.exitCalls[1].first);
    EXPECT_EQ(static_cast<UINT>(EWX_FORCE), g_fake.exitCalls[2].first);
    EXPECT_EQ(0u, EWX_LOGOFF);
    EXPECT_EQ(4u, EWX_FORCE);
    for (const auto& call : g_fake.exitCalls)
        EXPECT_EQ(0u, call.second) << "reason";

    EXPECT_EQ(1u, log.Count("INFO", "DesktopOptions", "bForce=0"));
    EXPECT_EQ(1u, log.Count("INFO", "DesktopOptions", "bForce=1"));

    // A refused logoff is the result.
    g_fake.bExitResult = FALSE;
    EXPECT_EQ(0, Logoff(0));
}

// --- LockWorkstation

TEST_F(SessionActionTest, LockThatWorksStartsNoScreenSaver)
{
    MessageWindow foreground;
    g_fake.hForeground = foreground.Get();
    EXPECT_EQ(1, LockWorkstation());
    EXPECT_EQ(1, g_fake.nLockCalls);
    EXPECT_TRUE(foreground.TakeSysCommands().empty());
}

TEST_F(SessionActionTest, FailedOrMissingLockStartsTheScreenSaver)
{
    MessageWindow foreground;
    g_fake.hForeground = foreground.Get();
    g_fake.bLockResult = FALSE;
    for (DWORD dwError : {static_cast<DWORD>(ERROR_ACCESS_DENIED), static_cast<DWORD>(ERROR_PROC_NOT_FOUND),
                          static_cast<DWORD>(ERROR_MOD_NOT_FOUND)})
    {
        g_fake.dwLockError = dwError;
        EXPECT_EQ(1, LockWorkstation());
        EXPECT_EQ(std::vector<WPARAM>{SC_SCREENSAVE}, foreground.TakeSysCommands()) << "error " << dwError;
    }
    EXPECT_EQ(0xF140u, SC_SCREENSAVE);

    // With no foreground window there is nobody to ask; still 1.
    g_fake.hForeground = nullptr;
    EXPECT_EQ(1, LockWorkstation());
}

bool IsWine()
{
    return GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "wine_get_version") != nullptr;
}

// The real lookup of LockWorkStation: Wine has the function, and it fails.
TEST_F(SessionActionTest, WinesOwnLockFallsBackToTheScreenSaver)
{
    if (!IsWine())
        GTEST_SKIP() << "would lock this workstation";
    m_api.pfnLockWorkStation = KvDefaultSystemApi().pfnLockWorkStation;
    MessageWindow foreground;
    g_fake.hForeground = foreground.Get();
    EXPECT_EQ(1, LockWorkstation());
    EXPECT_EQ(std::vector<WPARAM>{SC_SCREENSAVE}, foreground.TakeSysCommands());
}

// --- KillScreenSaver

HDESK WINAPI FakeOpenDesktopW(LPCWSTR lpszDesktop, DWORD dwFlags, BOOL fInherit, ACCESS_MASK dwAccess)
{
    g_fake.openedName = lpszDesktop;
    g_fake.openedAccess = dwAccess;
    g_fake.bOpenedInherit = fInherit;
    if (!g_fake.bSaverDesktop)
    {
        SetLastError(ERROR_FILE_NOT_FOUND);
        return nullptr;
    }
    // Any real desktop will do: the windows come from the enumeration below.
    wchar_t szName[260] = {};
    GetUserObjectInformationW(GetThreadDesktop(GetCurrentThreadId()), UOI_NAME, szName, sizeof(szName),
                              nullptr);
    g_fake.hOpened = OpenDesktopW(szName, dwFlags, fInherit, dwAccess);
    return g_fake.hOpened;
}

BOOL WINAPI FakeEnumDesktopWindows(HDESK hDesktop, WNDENUMPROC lpfn, LPARAM lParam)
{
    g_fake.hEnumerated = hDesktop;
    for (HWND hWnd : g_fake.saverWindows)
        if (!lpfn(hWnd, lParam))
            return FALSE;
    return TRUE;
}

class KillScreenSaverTest : public SessionActionTest
{
protected:
    KillScreenSaverTest()
    {
        m_api.pfnOpenDesktopW = FakeOpenDesktopW;
        m_api.pfnEnumDesktopWindows = FakeEnumDesktopWindows;
        ShowWindow(m_visible1.Get(), SW_SHOWNOACTIVATE);
        ShowWindow(m_visible2.Get(), SW_SHOWNOACTIVATE);
    }

    static int TakeCloses(HWND hWnd)
    {
        int n = 0;
        MSG msg;
        while (PeekMessageW(&msg, hWnd, WM_CLOSE, WM_CLOSE, PM_REMOVE))
            ++n;
        return n;
    }

    MessageWindow m_visible1, m_hidden, m_visible2;
};

TEST_F(KillScreenSaverTest, ClosesEveryVisibleWindowOfTheSaverDesktop)
{
    ASSERT_TRUE(IsWindowVisible(m_visible1.Get()));
    ASSERT_FALSE(IsWindowVisible(m_hidden.Get()));
    g_fake.bSaverDesktop = true;
    // A hidden window between two visible ones does not stop the walk.
    g_fake.saverWindows = {m_visible1.Get(), m_hidden.Get(), m_visible2.Get()};

    KillScreenSaver();
    EXPECT_EQ(L"Screen-saver", g_fake.openedName);
    EXPECT_EQ(static_cast<ACCESS_MASK>(DESKTOP_READOBJECTS | DESKTOP_WRITEOBJECTS), g_fake.openedAccess);
    EXPECT_FALSE(g_fake.bOpenedInherit);
    ASSERT_NE(nullptr, g_fake.hOpened);
    EXPECT_EQ(g_fake.hOpened, g_fake.hEnumerated);
    EXPECT_EQ(1, TakeCloses(m_visible1.Get()));
    EXPECT_EQ(0, TakeCloses(m_hidden.Get()));
    EXPECT_EQ(1, TakeCloses(m_visible2.Get()));

    // The desktop handle is closed again.
    wchar_t szName[260];
    EXPECT_FALSE(GetUserObjectInformationW(g_fake.hOpened, UOI_NAME, szName, sizeof(szName), nullptr));
}

TEST_F(KillScreenSaverTest, NoSaverDesktopNoWalk)
{
    g_fake.saverWindows = {m_visible1.Get()};
    KillScreenSaver();
    EXPECT_EQ(L"Screen-saver", g_fake.openedName);
    EXPECT_EQ(nullptr, g_fake.hEnumerated);
    EXPECT_EQ(0, TakeCloses(m_visible1.Get()));

    // Wine has no "Screen-saver" desktop either.
    m_api.pfnOpenDesktopW = KvDefaultSystemApi().pfnOpenDesktopW;
    KillScreenSaver();
    EXPECT_EQ(nullptr, g_fake.hEnumerated);
    EXPECT_EQ(0, TakeCloses(m_visible1.Get()));
}

} // namespace
