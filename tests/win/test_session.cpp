// Session and version queries. Wine cannot answer most WTS questions, so fakes in the system table
// answer; the few that Wine does answer are checked against the real system.
#include "KvSystemApi.h"
#include "UtilVersion.h"
#include "UtilWTS.h"
#include "test_log_capture.h"

#include <gtest/gtest.h>

#include <shlobj.h>

#include <algorithm>
#include <cstring>
#include <vector>

namespace
{

// What the fakes answer (query error 0: it works) and what they were asked.
struct FakeState
{
    DWORD dwQueryError = 0, dwQueriedSession = 0;
    std::vector<BYTE> record;
    int nQueriedClass = -1, nFrees = 0, nConsoleCalls = 0;
    DWORD dwConsoleIds[2] = {1, 1}; // the first and every later answer
    LONG lVersionStatus = 0;
    DWORD dwMajor = 10, dwMinor = 0;
    WORD wServicePack = 0;
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

class WtsTest : public ::testing::Test
{
protected:
    WtsTest()
    {
        g_fake = FakeState();
        m_api.pfnWTSQuerySessionInformationW = FakeQuery;
        m_api.pfnWTSFreeMemory = [](PVOID p) WINAPI { ++g_fake.nFrees, LocalFree(p); };
        m_api.pfnWTSGetActiveConsoleSessionId = []() WINAPI
        { return g_fake.dwConsoleIds[g_fake.nConsoleCalls++ == 0 ? 0 : 1]; };
        m_api.pfnRtlGetVersion = FakeRtlGetVersion;
    }
    ~WtsTest() override { g_nSessionId = m_dwSavedSessionId; }

    KvSystemApi m_api = KvDefaultSystemApi();
    KvScopedSystemApi m_scoped{m_api};
    DWORD m_dwSavedSessionId = g_nSessionId;
};

TEST_F(WtsTest, ConsoleIdIsTheSecondAnswer)
{
    // Right after a switch the first answer may still name the old console session.
    DWORD dwId = 0;
    g_fake.dwConsoleIds[0] = 3;
    g_fake.dwConsoleIds[1] = 5;
    SetLastError(1234);
    EXPECT_EQ(1, GetActiveConsoleID(&dwId));
    EXPECT_EQ(5u, dwId);
    EXPECT_EQ(0u, GetLastError());
    g_fake.dwConsoleIds[1] = 0xFFFFFFFF;
    EXPECT_EQ(0, GetActiveConsoleID(&dwId));
}

TEST_F(WtsTest, SessionActiveFallsBackToTheConsoleOnlyWhenTheQueryIsMissing)
{
    const DWORD kNone = 0xFFFFFFFF;
    // query error, connect state, the console's two answers, our session, the answer
    const struct
    {
        DWORD dwError;
        INT state;
        DWORD dwFirst, dwConsole, dwSession;
        int nExpected;
    } cases[] = {
        {0, WTSActive, 7, 7, 7, 1},
        {0, WTSConnected, 7, 7, 7, 0},
        {0, WTSDisconnected, 7, 7, 7, 0},
        // A query that fails on a system that has it is no reason to guess.
        {ERROR_ACCESS_DENIED, 0, 7, 7, 7, 0},
        {ERROR_PROC_NOT_FOUND, 0, 9, 7, 7, 1},
        {ERROR_MOD_NOT_FOUND, 0, 7, 9, 7, 0},
        {ERROR_MOD_NOT_FOUND, 0, kNone, kNone, kNone, 0},
    };
    for (const auto& c : cases)
    {
        g_nSessionId = c.dwSession;
        g_fake.dwQueryError = c.dwError;
        g_fake.record.assign(reinterpret_cast<const BYTE*>(&c.state),
                             reinterpret_cast<const BYTE*>(&c.state + 1));
        g_fake.dwConsoleIds[0] = c.dwFirst;
        g_fake.dwConsoleIds[1] = c.dwConsole;
        g_fake.nConsoleCalls = 0;
        EXPECT_EQ(c.nExpected, IsSessionActive()) << c.dwError << " state " << c.state;
        EXPECT_EQ(c.dwSession, g_fake.dwQueriedSession);
        EXPECT_EQ(static_cast<int>(WTSConnectState), g_fake.nQueriedClass);
        EXPECT_EQ(KvIsMissingFunction(c.dwError) ? 2 : 0, g_fake.nConsoleCalls) << c.dwError;
    }
    EXPECT_EQ(3, g_fake.nFrees);
}

TEST_F(WtsTest, LockStateComesFromTheExtendedRecord)
{
    const size_t kFull = sizeof(KV_WTSINFOEXW);
    const struct
    {
        DWORD dwError, dwLevel;
        LONG lFlags;
        size_t cb;
        bool bLocked;
        const char* szError; // the one ERROR line, or none
    } cases[] = {
        {0, 1, KV_WTS_SESSIONSTATE_UNLOCK, kFull, false, nullptr},
        {0, 1, KV_WTS_SESSIONSTATE_LOCK, kFull, true, nullptr},
        {0, 1, KV_WTS_SESSIONSTATE_UNLOCK, kFull + 16, false, nullptr},
        // A level the agent does not know counts as locked, whatever the flags say.
        {0, 2, KV_WTS_SESSIONSTATE_UNLOCK, kFull, true, nullptr},
        {0, 1, KV_WTS_SESSIONSTATE_LOCK, kFull - 1, false,
         "Returned data for KV_WTSSessionInfoEx query is less then size of KV_WTSINFOEXW structure."},
        {ERROR_PROC_NOT_FOUND, 1, 0, kFull, false,
         "Unable to load query for WTSQuerySessionInformationW function in  wtsapi32.dll."},
        {ERROR_MOD_NOT_FOUND, 1, 0, kFull, false, "Unable to load wtsapi32.dll."},
        {ERROR_ACCESS_DENIED, 1, 0, kFull, false, nullptr},
    };
    for (const auto& c : cases)
    {
        kvtest::LogCapture log;
        KV_WTSINFOEXW info = {};
        info.Level = c.dwLevel;
        info.Data.WTSInfoExLevel1.SessionFlags = c.lFlags;
        g_fake.record.assign(c.cb, 0);
        std::memcpy(g_fake.record.data(), &info, std::min(c.cb, kFull));
        g_fake.dwQueryError = c.dwError;
        g_fake.nConsoleCalls = g_fake.nFrees = 0;
        const std::string what = std::to_string(c.dwError) + " level " + std::to_string(c.dwLevel) +
                                 " size " + std::to_string(c.cb);
        EXPECT_EQ(c.bLocked, IsSessionLockedWindows10()) << what;
        EXPECT_EQ(WTS_CURRENT_SESSION, g_fake.dwQueriedSession);
        EXPECT_EQ(KV_WTSSessionInfoEx, g_fake.nQueriedClass);
        EXPECT_EQ(c.dwError == 0 ? 1 : 0, g_fake.nFrees) << what;
        EXPECT_EQ(2, g_fake.nConsoleCalls) << "the console is asked first";
        EXPECT_EQ(c.szError ? 1u : 0u, kvtest::CountContaining(log.Lines(), "ERROR|")) << what;
        EXPECT_EQ(c.szError ? 1u : 0u, log.Count("ERROR", "UtilWTS", c.szError ? c.szError : "")) << what;
    }
}

TEST_F(WtsTest, VersionComparesMajorThenMinorThenServicePack)
{
    // major, minor, service pack of the system; the same asked for; the answer
    const unsigned cases[][7] = {{10, 0, 0, 10, 0, 0, 1}, {6, 3, 0, 10, 0, 0, 0}, {11, 0, 0, 10, 5, 9, 1},
                                 {6, 1, 1, 6, 1, 1, 1},   {6, 1, 0, 6, 1, 1, 0},  {6, 2, 0, 6, 1, 5, 1},
                                 {5, 2, 3, 6, 0, 0, 0},   {6, 0, 9, 6, 1, 0, 0}};
    for (const auto& c : cases)
    {
        g_fake.dwMajor = c[0];
        g_fake.dwMinor = c[1];
        g_fake.wServicePack = static_cast<WORD>(c[2]);
        EXPECT_EQ(static_cast<int>(c[6]), IsWindowsVersionEqualOrGreater(c[3], c[4], static_cast<WORD>(c[5])))
            << c[0] << "." << c[1] << " sp" << c[2] << " vs " << c[3] << "." << c[4] << " sp" << c[5];
    }
    g_fake.dwMajor = 6;
    EXPECT_EQ(0, IsWindows10OrGreater());
    g_fake.dwMajor = 10;
    EXPECT_EQ(1, IsWindows10OrGreater());
    g_fake.lVersionStatus = static_cast<LONG>(0xC0000002L); // unreadable: not Windows 10
    EXPECT_EQ(0, IsWindows10OrGreater());
}

TEST(WtsSystemTest, QueriesWineAnswersMatchTheSystem)
{
    DWORD dwSession = 0xFFFFFFFF;
    ASSERT_TRUE(ProcessIdToSessionId(GetCurrentProcessId(), &dwSession));
    EXPECT_EQ(dwSession, GetSessionID());
    // The prefix is Windows 10, though no manifest of this program admits it.
    EXPECT_EQ(1, IsWindows10OrGreater());
    EXPECT_EQ(0, IsWindowsVersionEqualOrGreater(10, 0, 1000));
    EXPECT_EQ(::IsUserAnAdmin() ? 1 : 0, KvWTS::IsUserAnAdmin());
    EXPECT_NE(0, GetFileMajorVersion(L"Shell32.dll"));
    EXPECT_EQ(0, GetFileMajorVersion(L"C:\\no\\such\\module.dll"));
}

} // namespace
