// Logoff, lock and the screen-saver kill. Under Wine ExitWindowsEx ends the whole Wine session and
// there is neither a lock nor a screen-saver desktop, so fakes in the system table answer.
#include "DesktopOptions.h"
#include "KvSystemApi.h"
#include "UtilScreenSaver.h"
#include "test_log_capture.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace
{

struct FakeState
{
    std::vector<std::pair<UINT, DWORD>> exitCalls;
    BOOL bExitResult = TRUE, bLockResult = TRUE, bOpenedInherit = TRUE;
    DWORD dwLockError = 0;
    HWND hForeground = nullptr;
    bool bSaverDesktop = false;
    std::vector<HWND> saverWindows;
    std::wstring openedName;
    ACCESS_MASK openedAccess = 0;
    HDESK hOpened = nullptr, hEnumerated = nullptr;
} g_fake;

BOOL WINAPI FakeExitWindowsEx(UINT uFlags, DWORD dwReason)
{
    g_fake.exitCalls.emplace_back(uFlags, dwReason);
    return g_fake.bExitResult;
}

HDESK WINAPI FakeOpenDesktopW(LPCWSTR lpszDesktop, DWORD dwFlags, BOOL fInherit, ACCESS_MASK dwAccess)
{
    g_fake.openedName = lpszDesktop;
    g_fake.openedAccess = dwAccess;
    g_fake.bOpenedInherit = fInherit;
    if (!g_fake.bSaverDesktop)
        return SetLastError(ERROR_FILE_NOT_FOUND), nullptr;
    // Any real desktop will do: the windows come from the fake walk.
    wchar_t szName[260] = {};
    GetUserObjectInformationW(GetThreadDesktop(GetCurrentThreadId()), UOI_NAME, szName, sizeof(szName),
                              nullptr);
    return g_fake.hOpened = OpenDesktopW(szName, dwFlags, fInherit, dwAccess);
}

BOOL WINAPI FakeEnumDesktopWindows(HDESK hDesktop, WNDENUMPROC lpfn, LPARAM lParam)
{
    g_fake.hEnumerated = hDesktop;
    for (HWND hWnd : g_fake.saverWindows)
        if (!lpfn(hWnd, lParam))
            return FALSE;
    return TRUE;
}

// Every session action in the table is a fake: nothing here may end the test's own session. Three
// windows of this thread, the middle one hidden, read back what is posted to them.
class SessionActionTest : public ::testing::Test
{
protected:
    SessionActionTest()
    {
        g_fake = FakeState();
        m_api.pfnExitWindowsEx = FakeExitWindowsEx;
        m_api.pfnLockWorkStation = []() WINAPI
        { return SetLastError(g_fake.dwLockError), g_fake.bLockResult; };
        m_api.pfnGetForegroundWindow = []() WINAPI { return g_fake.hForeground; };
        m_api.pfnOpenDesktopW = FakeOpenDesktopW;
        m_api.pfnEnumDesktopWindows = FakeEnumDesktopWindows;
        for (HWND& h : m_wnd)
            h = CreateWindowExW(0, L"STATIC", L"kv-test", WS_POPUP, 0, 0, 10, 10, nullptr, nullptr, nullptr,
                                nullptr);
        ShowWindow(m_wnd[0], SW_SHOWNOACTIVATE);
        ShowWindow(m_wnd[2], SW_SHOWNOACTIVATE);
    }
    ~SessionActionTest() override
    {
        for (HWND h : m_wnd)
            DestroyWindow(h);
    }

    // The wParams of the uMsg messages posted to hWnd, taken out of the queue.
    static std::vector<WPARAM> Take(HWND hWnd, UINT uMsg)
    {
        std::vector<WPARAM> taken;
        for (MSG msg; PeekMessageW(&msg, hWnd, uMsg, uMsg, PM_REMOVE);)
            taken.push_back(msg.wParam);
        return taken;
    }

    KvSystemApi m_api = KvDefaultSystemApi();
    KvScopedSystemApi m_scoped{m_api};
    HWND m_wnd[3] = {};
};

TEST_F(SessionActionTest, LogoffForcesForAnyNonZeroValue)
{
    kvtest::LogCapture log;
    for (int bForce : {0, 1, -3})
        EXPECT_NE(0, Logoff(bForce));
    const std::vector<std::pair<UINT, DWORD>> expected = {{EWX_LOGOFF, 0}, {EWX_FORCE, 0}, {EWX_FORCE, 0}};
    EXPECT_EQ(expected, g_fake.exitCalls);
    EXPECT_EQ(1u, log.Count("INFO", "DesktopOptions", "bForce=1"));
    g_fake.bExitResult = FALSE;
    EXPECT_EQ(0, Logoff(0));
}

TEST_F(SessionActionTest, FailedOrMissingLockStartsTheScreenSaver)
{
    g_fake.hForeground = m_wnd[0];
    const std::pair<BOOL, DWORD> cases[] = {
        {TRUE, 0}, {FALSE, ERROR_ACCESS_DENIED}, {FALSE, ERROR_PROC_NOT_FOUND}, {FALSE, ERROR_MOD_NOT_FOUND}};
    for (const auto& c : cases)
    {
        g_fake.bLockResult = c.first;
        g_fake.dwLockError = c.second;
        EXPECT_EQ(1, LockWorkstation());
        const std::vector<WPARAM> expected(c.first ? 0 : 1, SC_SCREENSAVE);
        EXPECT_EQ(expected, Take(m_wnd[0], WM_SYSCOMMAND)) << "error " << c.second;
    }
    // With no foreground window there is nobody to ask; still 1.
    g_fake.hForeground = nullptr;
    EXPECT_EQ(1, LockWorkstation());

    // The real lookup: Wine has the function, and it fails.
    if (GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "wine_get_version") == nullptr)
        return; // would lock this workstation
    g_fake.hForeground = m_wnd[0];
    m_api.pfnLockWorkStation = KvDefaultSystemApi().pfnLockWorkStation;
    EXPECT_EQ(1, LockWorkstation());
    EXPECT_EQ(std::vector<WPARAM>{SC_SCREENSAVE}, Take(m_wnd[0], WM_SYSCOMMAND));
}

TEST_F(SessionActionTest, KillScreenSaverClosesTheVisibleWindowsOfItsDesktop)
{
    ASSERT_TRUE(IsWindowVisible(m_wnd[0]) && !IsWindowVisible(m_wnd[1]));
    g_fake.saverWindows = {m_wnd[0], m_wnd[1], m_wnd[2]};
    KillScreenSaver();
    EXPECT_EQ(nullptr, g_fake.hEnumerated) << "no screen-saver desktop, no walk";

    g_fake.bSaverDesktop = true;
    KillScreenSaver();
    EXPECT_EQ(L"Screen-saver", g_fake.openedName);
    EXPECT_EQ(static_cast<ACCESS_MASK>(DESKTOP_READOBJECTS | DESKTOP_WRITEOBJECTS), g_fake.openedAccess);
    EXPECT_FALSE(g_fake.bOpenedInherit);
    ASSERT_NE(nullptr, g_fake.hOpened);
    EXPECT_EQ(g_fake.hOpened, g_fake.hEnumerated);
    // The hidden window between two visible ones does not stop the walk.
    EXPECT_EQ(1u, Take(m_wnd[0], WM_CLOSE).size());
    EXPECT_EQ(0u, Take(m_wnd[1], WM_CLOSE).size());
    EXPECT_EQ(1u, Take(m_wnd[2], WM_CLOSE).size());
    wchar_t szName[260];
    EXPECT_FALSE(GetUserObjectInformationW(g_fake.hOpened, UOI_NAME, szName, sizeof(szName), nullptr))
        << "the desktop is closed again";
}

} // namespace
