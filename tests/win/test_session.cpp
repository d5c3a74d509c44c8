// Session queries and actions. Wine cannot answer most WTS questions and has neither a lock nor a
// screen-saver desktop, so fakes in the system table answer.
#include "DesktopOptions.h"
#include "KvSystemApi.h"
#include "UtilScreenSaver.h"
#include "UtilVersion.h"
#include "UtilWTS.h"
#include "test_log_capture.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <tuple>
#include <vector>

namespace
{

// What the fakes answer (query error 0: it works) and what they were asked.
struct FakeState
{
    DWORD dwQueryError = 0, dwQueriedSession = 0, dwLockError = 0;
    // The WTS function the system lacks (none when null), and how: without it or its library.
    const char* szMissing = nullptr;
    DWORD dwMissingError = 0;
    std::vector<BYTE> record;
    int nQueriedClass = -1, nFrees = 0, nConsoleCalls = 0;
    DWORD dwConsoleIds[2] = {1, 1}; // the first and every later answer
    LONG lVersionStatus = 0;
    DWORD dwMajor = 10, dwMinor = 0;
    WORD wServicePack = 0;
    BOOL bLockResult = TRUE, bSaverDesktop = FALSE, bOpenedInherit = TRUE;
    HWND hForeground = nullptr;
    std::vector<HWND> saverWindows;
    std::wstring openedName;
    ACCESS_MASK openedAccess = 0;
    HDESK hOpened = nullptr, hEnumerated = nullptr;
} g_fake;

BOOL WINAPI FakeQuery(HANDLE, DWORD dwSession, WTS_INFO_CLASS infoClass, LPWSTR* ppBuffer, DWORD* pcb)
{
    g_fake.dwQueriedSession = dwSession;
    g_fake.nQueriedClass = infoClass;
    SetLastError(g_fake.dwQueryError);
    if (g_fake.dwQueryError != 0)
        return FALSE;
    *ppBuffer = static_cast<LPWSTR>(LocalAlloc(LPTR, g_fake.record.size() + 1));
    std::memcpy(*ppBuffer, g_fake.record.data(), g_fake.record.size());
    *pcb = static_cast<DWORD>(g_fake.record.size());
    return TRUE;
}

LONG WINAPI FakeRtlGetVersion(OSVERSIONINFOEXW* p)
{
    if (g_fake.lVersionStatus != 0 || p->dwOSVersionInfoSize != sizeof(OSVERSIONINFOEXW))
        return g_fake.lVersionStatus != 0 ? g_fake.lVersionStatus : static_cast<LONG>(0xC000000DL);
    p->dwMajorVersion = g_fake.dwMajor;
    p->dwMinorVersion = g_fake.dwMinor;
    p->wServicePackMajor = g_fake.wServicePack;
    return 0;
}

HDESK WINAPI FakeOpenDesktopW(LPCWSTR lpszDesktop, DWORD dwFlags, BOOL fInherit, ACCESS_MASK dwAccess)
{
    g_fake.openedName = lpszDesktop;
    g_fake.openedAccess = dwAccess;
    g_fake.bOpenedInherit = fInherit;
    if (!g_fake.bSaverDesktop)
        return nullptr;
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

// The production table with every entry a test may need to answer replaced by a fake: nothing here
// may end the test's own session. Three windows of this thread, the middle one hidden, read back
// what is posted to them.
class SessionTest : public ::testing::Test
{
protected:
    SessionTest()
    {
        g_fake = FakeState();
        m_api.pfnWTSQuerySessionInformationW = FakeQuery;
        m_api.pfnFindWTSFunction = [](const char* szName)
        {
            const bool bMissing = g_fake.szMissing != nullptr && std::strcmp(szName, g_fake.szMissing) == 0;
            return SetLastError(bMissing ? g_fake.dwMissingError : 0), bMissing ? FALSE : TRUE;
        };
        m_api.pfnWTSFreeMemory = [](PVOID p) WINAPI { ++g_fake.nFrees, LocalFree(p); };
        m_api.pfnWTSGetActiveConsoleSessionId = []() WINAPI
        { return g_fake.dwConsoleIds[g_fake.nConsoleCalls++ == 0 ? 0 : 1]; };
        m_api.pfnRtlGetVersion = FakeRtlGetVersion;
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
    ~SessionTest() override
    {
        g_nSessionId = m_dwSavedSessionId;
        for (HWND h : m_wnd)
            DestroyWindow(h);
    }

    // How many uMsg messages with wParam were posted to hWnd; taken out of the queue.
    static size_t Take(HWND hWnd, UINT uMsg, WPARAM wParam = 0)
    {
        size_t n = 0;
        for (MSG msg; PeekMessageW(&msg, hWnd, uMsg, uMsg, PM_REMOVE);)
            n += msg.wParam == wParam;
        return n;
    }

    KvSystemApi m_api = KvDefaultSystemApi();
    KvScopedSystemApi m_scoped{m_api};
    DWORD m_dwSavedSessionId = g_nSessionId;
    HWND m_wnd[3] = {};
};

TEST_F(SessionTest, SessionActiveAsksTheConsoleWhenTheQueryGivesNoAnswer)
{
    const DWORD kNone = 0xFFFFFFFF;
    // query error, connect state, the console's two answers (right after a switch the first may
    // still name the old console session), our session, the answer
    const DWORD cases[][6] = {
        {0, WTSActive, 7, 7, 7, 1},
        {0, WTSConnected, 7, 7, 7, 0},
        {0, WTSDisconnected, 7, 7, 7, 0},
        // Terminal services stopped, or Wine: the query exists and fails.
        {ERROR_ACCESS_DENIED, 0, 9, 7, 7, 1},
        {ERROR_ACCESS_DENIED, 0, 7, 9, 7, 0},
        {ERROR_PROC_NOT_FOUND, 0, 9, 7, 7, 1},
        {ERROR_MOD_NOT_FOUND, 0, kNone, kNone, kNone, 0},
    };
    for (const auto& c : cases)
    {
        g_fake.dwQueryError = c[0];
        g_fake.record.assign(reinterpret_cast<const BYTE*>(&c[1]), reinterpret_cast<const BYTE*>(&c[2]));
        g_fake.dwConsoleIds[0] = c[2];
        g_fake.dwConsoleIds[1] = c[3];
        g_nSessionId = c[4];
        g_fake.nConsoleCalls = 0;
        EXPECT_EQ(static_cast<int>(c[5]), IsSessionActive()) << c[0] << " state " << c[1];
        EXPECT_EQ(c[4], g_fake.dwQueriedSession);
        EXPECT_EQ(static_cast<int>(WTSConnectState), g_fake.nQueriedClass);
        EXPECT_EQ(c[0] != 0 ? 2 : 0, g_fake.nConsoleCalls) << c[0];
    }
    EXPECT_EQ(3, g_fake.nFrees);
}

TEST_F(SessionTest, LockStateComesFromTheExtendedRecord)
{
    const DWORD kFull = sizeof(KV_WTSINFOEXW), kLock = KV_WTS_SESSIONSTATE_LOCK,
                kUnlock = KV_WTS_SESSIONSTATE_UNLOCK;
    const char *kQuery = "WTSQuerySessionInformationW", *kFree = "WTSFreeMemory";
    const struct
    {
        DWORD dwError, dwLevel, dwFlags, cb;
        const char* szMissing; // with dwError as the reason
        bool bLocked;
        const char* szError; // the one ERROR line, or none
    } cases[] = {
        {0, 1, kUnlock, kFull, nullptr, false, nullptr},
        {0, 1, kLock, kFull, nullptr, true, nullptr},
        {0, 1, kUnlock, kFull + 16, nullptr, false, nullptr},
        // A level the agent does not know counts as locked, whatever the flags say.
        {0, 2, kUnlock, kFull, nullptr, true, nullptr},
        {0, 1, kLock, kFull - 1, nullptr, false,
         "Returned data for KV_WTSSessionInfoEx query is less then size of KV_WTSINFOEXW structure."},
        {ERROR_PROC_NOT_FOUND, 1, 0, kFull, kQuery, false,
         "Unable to load query for WTSQuerySessionInformationW function in  wtsapi32.dll."},
        {ERROR_PROC_NOT_FOUND, 1, 0, kFull, kFree, false,
         "Unable to load query for WTSFreeMemory function in  wtsapi32.dll."},
        {ERROR_MOD_NOT_FOUND, 1, 0, kFull, kQuery, false, "Unable to load wtsapi32.dll."},
        {ERROR_ACCESS_DENIED, 1, 0, kFull, nullptr, false, nullptr},
    };
    for (const auto& c : cases)
    {
        SCOPED_TRACE(testing::Message()
                     << "error " << c.dwError << " level " << c.dwLevel << " size " << c.cb);
        kvtest::LogCapture log;
        KV_WTSINFOEXW info = {};
        info.Level = c.dwLevel;
        info.Data.WTSInfoExLevel1.SessionFlags = static_cast<LONG>(c.dwFlags);
        g_fake.record.assign(c.cb, 0);
        std::memcpy(g_fake.record.data(), &info, std::min(c.cb, kFull));
        g_fake.szMissing = c.szMissing;
        g_fake.dwMissingError = c.dwError;
        g_fake.dwQueryError = c.szMissing == nullptr ? c.dwError : 0;
        g_fake.nConsoleCalls = g_fake.nFrees = 0;
        g_fake.nQueriedClass = -1;
        EXPECT_EQ(c.bLocked, IsSessionLockedWindows10());
        EXPECT_EQ(c.szMissing == nullptr ? KV_WTSSessionInfoEx : -1, g_fake.nQueriedClass);
        EXPECT_EQ(c.dwError == 0 ? 1 : 0, g_fake.nFrees) << "every buffer goes back";
        // The second-long console query only once the functions are known to be there.
        EXPECT_EQ(c.szMissing == nullptr ? 2 : 0, g_fake.nConsoleCalls);
        EXPECT_EQ(c.szError ? 1u : 0u, kvtest::CountContaining(log.Lines(), "ERROR|"));
        EXPECT_EQ(c.szError ? 1u : 0u, log.Count("ERROR", "UtilWTS", c.szError ? c.szError : ""));
    }
}

// The agent asks only whether it runs on Windows 10 or later.
TEST_F(SessionTest, Windows10OrLaterByMajorThenMinorVersion)
{
    for (const auto& [dwMajor, dwMinor, nAnswer] : {std::tuple{10ul, 0ul, 1}, {6ul, 3ul, 0}, {11ul, 0ul, 1}})
    {
        g_fake.dwMajor = dwMajor;
        g_fake.dwMinor = dwMinor;
        EXPECT_EQ(nAnswer, IsWindows10OrGreater()) << dwMajor << "." << dwMinor;
    }
    g_fake.lVersionStatus = static_cast<LONG>(0xC0000002L); // unreadable: not Windows 10
    EXPECT_EQ(0, IsWindows10OrGreater());
}

TEST_F(SessionTest, FailedOrMissingLockStartsTheScreenSaver)
{
    g_fake.hForeground = m_wnd[0];
    for (DWORD dwError : {0ul, 5ul, 127ul, 126ul}) // refused, function or library missing
    {
        g_fake.bLockResult = dwError == 0;
        g_fake.dwLockError = dwError;
        EXPECT_EQ(1, LockWorkstation());
        EXPECT_EQ(dwError == 0 ? 0u : 1u, Take(m_wnd[0], WM_SYSCOMMAND, SC_SCREENSAVE)) << dwError;
    }
    g_fake.hForeground = nullptr;
    EXPECT_EQ(1, LockWorkstation()) << "nobody to ask, still done";
}

TEST_F(SessionTest, KillScreenSaverClosesTheVisibleWindowsOfItsDesktop)
{
    ASSERT_TRUE(IsWindowVisible(m_wnd[0]) && !IsWindowVisible(m_wnd[1]));
    g_fake.saverWindows = {m_wnd[0], m_wnd[1], m_wnd[2]};
    KillScreenSaver();
    EXPECT_EQ(nullptr, g_fake.hEnumerated) << "no screen-saver desktop, no walk";

    g_fake.bSaverDesktop = TRUE;
    KillScreenSaver();
    EXPECT_EQ(L"Screen-saver", g_fake.openedName);
    ASSERT_NE(nullptr, g_fake.hOpened);
    EXPECT_EQ(g_fake.hOpened, g_fake.hEnumerated);
    EXPECT_EQ(1u, Take(m_wnd[0], WM_CLOSE));
    EXPECT_EQ(0u, Take(m_wnd[1], WM_CLOSE)) << "hidden";
    EXPECT_EQ(1u, Take(m_wnd[2], WM_CLOSE)) << "after a hidden one";
    wchar_t szName[260];
    EXPECT_FALSE(GetUserObjectInformationW(g_fake.hOpened, UOI_NAME, szName, sizeof(szName), nullptr))
        << "the desktop is closed again";
}

} // namespace
