// Session and version queries. Wine cannot answer most WTS questions, so the answers come from a
// system table of fakes; the few that Wine does answer are checked against the real system.
#include "KvSystemApi.h"
#include "UtilVersion.h"
#include "UtilWTS.h"
#include "test_log_capture.h"

#include <gtest/gtest.h>

#include <shlobj.h>

#include <cstring>
#include <vector>

using kvtest::LogCapture;

namespace
{

const char kLogger[] = "UtilWTS";

// What the fakes answer and what they were asked.
struct FakeState
{
    // WTSQuerySessionInformationW
    bool bQueryOk = true;
    DWORD dwQueryError = 0;
    std::vector<BYTE> record;
    int nQueries = 0;
    DWORD dwQueriedSession = 0;
    int nQueriedClass = -1;
    // WTSFreeMemory
    int nFrees = 0;
    // WTSEnumerateSessionsW
    bool bEnumOk = true;
    std::vector<WTS_SESSION_INFOW> sessions;
    // WTSGetActiveConsoleSessionId: the first and the later answers
    DWORD dwConsoleIds[2] = {1, 1};
    int nConsoleCalls = 0;
    // RtlGetVersion
    LONG lVersionStatus = 0;
    DWORD dwMajor = 10, dwMinor = 0;
    WORD wServicePack = 0;
};

FakeState g_fake;

BOOL WINAPI FakeQuery(HANDLE, DWORD dwSessionId, WTS_INFO_CLASS infoClass, LPWSTR* ppBuffer, DWORD* pcb)
{
    ++g_fake.nQueries;
    g_fake.dwQueriedSession = dwSessionId;
    g_fake.nQueriedClass = static_cast<int>(infoClass);
    if (!g_fake.bQueryOk)
    {
        SetLastError(g_fake.dwQueryError);
        return FALSE;
    }
    BYTE* p = static_cast<BYTE*>(LocalAlloc(LPTR, g_fake.record.size() + 1));
    if (!g_fake.record.empty())
        std::memcpy(p, g_fake.record.data(), g_fake.record.size());
    *ppBuffer = reinterpret_cast<LPWSTR>(p);
    *pcb = static_cast<DWORD>(g_fake.record.size());
    return TRUE;
}

void WINAPI FakeFree(PVOID p)
{
    ++g_fake.nFrees;
    LocalFree(p);
}

BOOL WINAPI FakeEnumerate(HANDLE, DWORD, DWORD dwVersion, PWTS_SESSION_INFOW* ppInfo, DWORD* pdwCount)
{
    if (!g_fake.bEnumOk || dwVersion != 1)
    {
        SetLastError(ERROR_CALL_NOT_IMPLEMENTED);
        return FALSE;
    }
    const size_t cb = g_fake.sessions.size() * sizeof(WTS_SESSION_INFOW);
    auto* p = static_cast<PWTS_SESSION_INFOW>(LocalAlloc(LPTR, cb + 1));
    if (cb != 0)
        std::memcpy(p, g_fake.sessions.data(), cb);
    *ppInfo = p;
    *pdwCount = static_cast<DWORD>(g_fake.sessions.size());
    return TRUE;
}

DWORD WINAPI FakeConsole()
{
    const int n = g_fake.nConsoleCalls++;
    return g_fake.dwConsoleIds[n == 0 ? 0 : 1];
}

LONG WINAPI FakeRtlGetVersion(OSVERSIONINFOEXW* p)
{
    if (g_fake.lVersionStatus != 0)
        return g_fake.lVersionStatus;
    if (p->dwOSVersionInfoSize != sizeof(OSVERSIONINFOEXW))
        return static_cast<LONG>(0xC000000DL); // STATUS_INVALID_PARAMETER
    p->dwMajorVersion = g_fake.dwMajor;
    p->dwMinorVersion = g_fake.dwMinor;
    p->wServicePackMajor = g_fake.wServicePack;
    return 0;
}

// The extended session record as the system returns it.
std::vector<BYTE> SessionRecord(DWORD dwLevel, LONG lFlags, size_t cb = sizeof(KV_WTSINFOEXW))
{
    KV_WTSINFOEXW info = {};
    info.Level = dwLevel;
    info.Data.WTSInfoExLevel1.SessionId = 1;
    info.Data.WTSInfoExLevel1.SessionFlags = lFlags;
    std::vector<BYTE> bytes(cb, 0);
    std::memcpy(bytes.data(), &info, cb < sizeof(info) ? cb : sizeof(info));
    return bytes;
}

std::vector<BYTE> ConnectState(INT state)
{
    std::vector<BYTE> bytes(sizeof(state));
    std::memcpy(bytes.data(), &state, sizeof(state));
    return bytes;
}

class WtsTest : public ::testing::Test
{
protected:
    WtsTest() : m_api(FakeTable()), m_scoped(m_api), m_nSavedSessionId(g_nSessionId) { g_fake = FakeState(); }
    ~WtsTest() override { g_nSessionId = m_nSavedSessionId; }

    static KvSystemApi FakeTable()
    {
        KvSystemApi api = KvDefaultSystemApi();
        api.pfnWTSQuerySessionInformationW = FakeQuery;
        api.pfnWTSFreeMemory = FakeFree;
        api.pfnWTSEnumerateSessionsW = FakeEnumerate;
        api.pfnWTSGetActiveConsoleSessionId = FakeConsole;
        api.pfnRtlGetVersion = FakeRtlGetVersion;
        return api;
    }

    // One answer of IsSessionLockedWindows10, with what it asked checked.
    bool Locked()
    {
        const int nQueries = g_fake.nQueries;
        const int nFrees = g_fake.nFrees;
        g_fake.nConsoleCalls = 0;
        const bool bLocked = IsSessionLockedWindows10();
        EXPECT_EQ(nQueries + 1, g_fake.nQueries);
        EXPECT_EQ(WTS_CURRENT_SESSION, g_fake.dwQueriedSession);
        EXPECT_EQ(KV_WTSSessionInfoEx, g_fake.nQueriedClass);
        EXPECT_EQ(nFrees + (g_fake.bQueryOk ? 1 : 0), g_fake.nFrees) << "every buffer goes back";
        EXPECT_EQ(2, g_fake.nConsoleCalls) << "the console is asked first";
        return bLocked;
    }

    KvSystemApi m_api;
    KvScopedSystemApi m_scoped;
    DWORD m_nSavedSessionId;
};

// --- The console and the agent's own session

TEST_F(WtsTest, ConsoleIdIsTheSecondAnswer)
{
    DWORD dwId = 0;
    g_fake.dwConsoleIds[0] = 3;
    g_fake.dwConsoleIds[1] = 5;
    SetLastError(1234);
    EXPECT_EQ(1, GetActiveConsoleID(&dwId));
    EXPECT_EQ(5u, dwId);
    EXPECT_EQ(2, g_fake.nConsoleCalls);
    EXPECT_EQ(0u, GetLastError());

    // No console session on the second look is a failure, whatever the first said.
    g_fake.nConsoleCalls = 0;
    g_fake.dwConsoleIds[1] = 0xFFFFFFFF;
    SetLastError(1234);
    EXPECT_EQ(0, GetActiveConsoleID(&dwId));
    EXPECT_EQ(0xFFFFFFFFu, dwId);
    EXPECT_EQ(0u, GetLastError());
}

TEST_F(WtsTest, ActiveSessionIsTheFirstActiveOne)
{
    g_fake.sessions = {{0, const_cast<LPWSTR>(L"Services"), WTSDisconnected},
                       {4, const_cast<LPWSTR>(L"RDP-Tcp#1"), WTSActive},
                       {2, const_cast<LPWSTR>(L"Console"), WTSActive}};
    EXPECT_EQ(4, GetActiveSessionID());
    EXPECT_EQ(1, g_fake.nFrees);

    g_fake.sessions = {{1, const_cast<LPWSTR>(L"Console"), WTSConnected}};
    EXPECT_EQ(-1, GetActiveSessionID());
    EXPECT_EQ(2, g_fake.nFrees);

    g_fake.bEnumOk = false;
    EXPECT_EQ(-1, GetActiveSessionID());
    EXPECT_EQ(2, g_fake.nFrees);
}

// --- IsSessionActive

TEST_F(WtsTest, SessionActiveAsksTheAgentsSessionsConnectState)
{
    g_nSessionId = 7;
    g_fake.record = ConnectState(WTSActive);
    EXPECT_EQ(1, IsSessionActive());
    EXPECT_EQ(7u, g_fake.dwQueriedSession);
    EXPECT_EQ(static_cast<int>(WTSConnectState), g_fake.nQueriedClass);
    EXPECT_EQ(1, g_fake.nFrees);

    for (INT state : {WTSConnected, WTSDisconnected, WTSIdle, WTSListen})
    {
        g_fake.record = ConnectState(state);
        EXPECT_EQ(0, IsSessionActive()) << "state " << state;
    }
    EXPECT_EQ(0, g_fake.nConsoleCalls) << "a working query needs no console fallback";

    // A query that fails on a system that has it is no reason to guess.
    g_fake.bQueryOk = false;
    g_fake.dwQueryError = ERROR_ACCESS_DENIED;
    g_fake.dwConsoleIds[0] = g_fake.dwConsoleIds[1] = 7;
    EXPECT_EQ(0, IsSessionActive());
    EXPECT_EQ(0, g_fake.nConsoleCalls);
}

TEST_F(WtsTest, SessionActiveWithoutTheQueryComparesTheConsoleSession)
{
    g_nSessionId = 7;
    g_fake.bQueryOk = false;

    // The function is missing: the console's second answer decides.
    g_fake.dwQueryError = ERROR_PROC_NOT_FOUND;
    g_fake.dwConsoleIds[0] = 9;
    g_fake.dwConsoleIds[1] = 7;
    EXPECT_EQ(1, IsSessionActive());
    EXPECT_EQ(2, g_fake.nConsoleCalls);

    // The library is missing, the console belongs to another session.
    g_fake.dwQueryError = ERROR_MOD_NOT_FOUND;
    g_fake.nConsoleCalls = 0;
    g_fake.dwConsoleIds[0] = 7;
    g_fake.dwConsoleIds[1] = 9;
    EXPECT_EQ(0, IsSessionActive());

    // No console session never matches, not even a session id of 0xFFFFFFFF.
    g_nSessionId = 0xFFFFFFFF;
    g_fake.nConsoleCalls = 0;
    g_fake.dwConsoleIds[0] = g_fake.dwConsoleIds[1] = 0xFFFFFFFF;
    EXPECT_EQ(0, IsSessionActive());
}

// --- IsSessionLockedWindows10

TEST_F(WtsTest, LockStateComesFromTheExtendedRecord)
{
    g_fake.record = SessionRecord(1, KV_WTS_SESSIONSTATE_UNLOCK);
    EXPECT_FALSE(Locked());
    g_fake.record = SessionRecord(1, KV_WTS_SESSIONSTATE_LOCK);
    EXPECT_TRUE(Locked());
    // A level the agent does not know counts as locked, whatever the flags say.
    g_fake.record = SessionRecord(2, KV_WTS_SESSIONSTATE_UNLOCK);
    EXPECT_TRUE(Locked());
    // Longer records are fine.
    g_fake.record = SessionRecord(1, KV_WTS_SESSIONSTATE_UNLOCK, sizeof(KV_WTSINFOEXW) + 16);
    EXPECT_FALSE(Locked());

    g_fake.record = SessionRecord(1, KV_WTS_SESSIONSTATE_LOCK);
    EXPECT_TRUE(isDesktopLockedWindows10());
}

TEST_F(WtsTest, LockStateUnknownIsUnlockedAndLogged)
{
    LogCapture log;
    ASSERT_TRUE(log.Configured());

    g_fake.record = SessionRecord(1, KV_WTS_SESSIONSTATE_LOCK, sizeof(KV_WTSINFOEXW) - 1);
    EXPECT_FALSE(Locked());
    EXPECT_EQ(1u, log.Count("ERROR", kLogger,
                            "Returned data for KV_WTSSessionInfoEx query is less then size of KV_WTSINFOEXW "
                            "structure."));

    g_fake.bQueryOk = false;
    g_fake.dwQueryError = ERROR_PROC_NOT_FOUND;
    EXPECT_FALSE(Locked());
    EXPECT_EQ(1u,
              log.Count("ERROR", kLogger,
                        "Unable to load query for WTSQuerySessionInformationW function in  wtsapi32.dll."));

    g_fake.dwQueryError = ERROR_MOD_NOT_FOUND;
    EXPECT_FALSE(Locked());
    EXPECT_EQ(1u, log.Count("ERROR", kLogger, "Unable to load wtsapi32.dll."));

    // A plain failure is only an answer.
    g_fake.dwQueryError = ERROR_ACCESS_DENIED;
    EXPECT_FALSE(Locked());
    EXPECT_EQ(3u, kvtest::CountContaining(log.Lines(), "ERROR|"));
}

// --- Versions

TEST_F(WtsTest, VersionComparesMajorThenMinorThenServicePack)
{
    struct Case
    {
        DWORD dwMajor, dwMinor;
        WORD wSp;
        DWORD dwWantMajor, dwWantMinor;
        WORD wWantSp;
        int nExpected;
    };
    const Case cases[] = {
        {10, 0, 0, 10, 0, 0, 1}, {6, 3, 0, 10, 0, 0, 0}, {11, 0, 0, 10, 5, 9, 1}, {6, 1, 1, 6, 1, 1, 1},
        {6, 1, 0, 6, 1, 1, 0},   {6, 2, 0, 6, 1, 5, 1},  {5, 2, 3, 6, 0, 0, 0},   {6, 0, 9, 6, 1, 0, 0},
    };
    for (const Case& c : cases)
    {
        g_fake.dwMajor = c.dwMajor;
        g_fake.dwMinor = c.dwMinor;
        g_fake.wServicePack = c.wSp;
        EXPECT_EQ(c.nExpected, IsWindowsVersionEqualOrGreater(c.dwWantMajor, c.dwWantMinor, c.wWantSp))
            << c.dwMajor << "." << c.dwMinor << " sp" << c.wSp << " against " << c.dwWantMajor << "."
            << c.dwWantMinor << " sp" << c.wWantSp;
    }
    g_fake.dwMajor = 6;
    g_fake.dwMinor = 3;
    EXPECT_EQ(0, IsWindows10OrGreater());
    g_fake.dwMajor = 10;
    g_fake.dwMinor = 0;
    EXPECT_EQ(1, IsWindows10OrGreater());
    // An unreadable version is not Windows 10.
    g_fake.lVersionStatus = static_cast<LONG>(0xC0000002L);
    EXPECT_EQ(0, IsWindows10OrGreater());
}

// --- The production table against what Wine really answers

TEST(WtsSystemTest, QueriesWineAnswersMatchTheSystem)
{
    DWORD dwSession = 0xFFFFFFFF;
    ASSERT_TRUE(ProcessIdToSessionId(GetCurrentProcessId(), &dwSession));
    EXPECT_EQ(dwSession, GetSessionID());

    // The test prefix is Windows 10, and this program has no manifest that would admit it.
    EXPECT_EQ(1, IsWindows10OrGreater());
    EXPECT_EQ(0, IsWindowsVersionEqualOrGreater(10, 0, 1000));

    EXPECT_EQ(::IsUserAnAdmin() ? 1 : 0, KvWTS::IsUserAnAdmin());
    EXPECT_NE(0, GetFileMajorVersion(L"Shell32.dll"));
    EXPECT_EQ(0, GetFileMajorVersion(L"C:\\no\\such\\module.dll"));
}

} // namespace
