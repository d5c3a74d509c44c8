// The entry point's steps called in this process, with the system table answering what Wine
// cannot: console state, session actions, the system-account refusal and the service port.
#include "test_agent_support.h"

#include "KVNXST.h"
#include "KvSystemApi.h"
#include "UtilService.h"
#include "UtilWTS.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <thread>
#include <vector>

using namespace kvtest;

namespace
{

struct FakeSystem
{
    std::wstring inputDesktop = L"Default"; // empty: the desktop cannot be opened
    std::vector<BOOL> screenSaver{FALSE};   // successive answers; the last repeats
    size_t nScreenSaverAsked = 0;
    std::vector<std::wstring> openedDesktops;
    WTS_CONNECTSTATE_CLASS connectState = WTSActive;
    bool bLocked = false;
    DWORD dwMajorVersion = 10;
    std::vector<UINT> exitWindowsFlags;
    BOOL bExitWindowsResult = TRUE;
    int nLocks = 0;
};

FakeSystem g_fake;

BOOL FakeGetInputDesktopName(wchar_t* szName, DWORD cchName)
{
    SetLastError(ERROR_ACCESS_DENIED);
    return !g_fake.inputDesktop.empty() &&
           wcsncpy_s(szName, cchName, g_fake.inputDesktop.c_str(), _TRUNCATE) == 0;
}

BOOL FakeGetScreenSaverRunning(BOOL* pbRunning)
{
    *pbRunning = g_fake.screenSaver[std::min(g_fake.nScreenSaverAsked++, g_fake.screenSaver.size() - 1)];
    return TRUE;
}

HDESK WINAPI FakeOpenDesktopW(LPCWSTR lpszDesktop, DWORD, BOOL, ACCESS_MASK)
{
    g_fake.openedDesktops.push_back(lpszDesktop);
    return nullptr;
}

// The connect state, or the extended record with its lock flags.
BOOL WINAPI FakeWTSQuerySessionInformationW(HANDLE, DWORD, WTS_INFO_CLASS infoClass, LPWSTR* ppBuffer,
                                            DWORD* pcbReturned)
{
    auto* pInfo = static_cast<KV_WTSINFOEXW*>(LocalAlloc(LPTR, sizeof(KV_WTSINFOEXW)));
    // The connect state sits where the record's level does.
    pInfo->Level = infoClass == WTSConnectState ? g_fake.connectState : 1;
    pInfo->Data.WTSInfoExLevel1.SessionFlags =
        g_fake.bLocked ? KV_WTS_SESSIONSTATE_LOCK : KV_WTS_SESSIONSTATE_UNLOCK;
    *ppBuffer = reinterpret_cast<LPWSTR>(pInfo);
    *pcbReturned = sizeof(KV_WTSINFOEXW);
    return TRUE;
}

LONG WINAPI FakeRtlGetVersion(OSVERSIONINFOEXW* pVersion)
{
    pVersion->dwMajorVersion = g_fake.dwMajorVersion;
    pVersion->dwMinorVersion = g_fake.dwMajorVersion == 10 ? 0 : 1;
    pVersion->wServicePackMajor = 0;
    return 0;
}

BOOL WINAPI FakeExitWindowsEx(UINT uFlags, DWORD)
{
    g_fake.exitWindowsFlags.push_back(uFlags);
    return g_fake.bExitWindowsResult;
}

// Installed for the whole program: nothing here may reach the real ExitWindowsEx, which would end
// the Wine session.
KvSystemApi FakeSystemApi()
{
    KvSystemApi api = KvDefaultSystemApi();
    api.pfnGetInputDesktopName = FakeGetInputDesktopName;
    api.pfnGetScreenSaverRunning = FakeGetScreenSaverRunning;
    api.pfnOpenDesktopW = FakeOpenDesktopW;
    api.pfnWTSQuerySessionInformationW = FakeWTSQuerySessionInformationW;
    api.pfnWTSFreeMemory = [](PVOID p) { LocalFree(p); };
    api.pfnWTSGetActiveConsoleSessionId = []() -> DWORD { return 1; };
    api.pfnRtlGetVersion = FakeRtlGetVersion;
    api.pfnExitWindowsEx = FakeExitWindowsEx;
    api.pfnLockWorkStation = []() -> BOOL { return ++g_fake.nLocks != 0; };
    return api;
}

const KvSystemApi g_fakeApi = FakeSystemApi();

class Startup : public ::testing::Test
{
protected:
    static void SetUpTestSuite() { KvSetSystemApi(&g_fakeApi); }
    static void TearDownTestSuite() { KvSetSystemApi(nullptr); }
    void SetUp() override
    {
        g_fake = FakeSystem();
        wcscpy_s(g_szDesktopName, L"Default");
        wcscpy_s(g_szUserName, L"user");
        g_bOneTimeSession = 0;
        g_nDesktopState = 0;
        g_nSessionId = 1;
    }
    void TearDown() override { CloseInstanceMapping(); }
};

// Runs fn on a thread of its own that sits on desktop.
template <typename Fn> void OnDesktop(const TestDesktop& desktop, Fn fn)
{
    std::thread(
        [&]
        {
            ASSERT_TRUE(desktop.SetOnThisThread()) << GetLastError();
            fn();
        })
        .join();
}

} // namespace

TEST_F(Startup, ConsoleLockAnswersFromTheInputDesktopAfterTheScreenSaver)
{
    const struct
    {
        std::vector<BOOL> screenSaver;
        const wchar_t* szInput;
        DWORD dwMajorVersion;
        bool bLocked;
        WTS_CONNECTSTATE_CLASS state;
        int nExpected;
    } cases[] = {
        {{FALSE}, L"Winlogon", 10, false, WTSActive, KV_EXIT_CONSOLE_LOCKED},
        {{FALSE}, L"WINLOGON", 10, false, WTSActive, KV_EXIT_CONSOLE_LOCKED},
        {{FALSE}, L"Screen-saver", 10, true, WTSDisconnected, KV_EXIT_CONSOLE_USABLE},
        {{FALSE}, L"", 10, false, WTSActive, KV_EXIT_CONSOLE_LOCKED},
        {{FALSE}, L"Default", 10, false, WTSActive, KV_EXIT_CONSOLE_USABLE},
        {{FALSE}, L"Default", 10, true, WTSActive, KV_EXIT_CONSOLE_LOCKED},
        // Before Windows 10 the session's state decides, not the lock flags.
        {{FALSE}, L"Default", 6, true, WTSActive, KV_EXIT_CONSOLE_USABLE},
        {{FALSE}, L"Default", 6, false, WTSDisconnected, KV_EXIT_CONSOLE_LOCKED},
        // A screen saver that stops leaves the answer to the desktop beneath; one that stays, -64.
        {{TRUE, FALSE}, L"Default", 10, true, WTSActive, KV_EXIT_CONSOLE_LOCKED},
        {{TRUE, TRUE}, L"Default", 10, false, WTSActive, KV_EXIT_SCREEN_SAVER_RUNNING},
    };
    for (const auto& c : cases)
    {
        g_fake = FakeSystem();
        g_fake.screenSaver = c.screenSaver;
        g_fake.inputDesktop = c.szInput;
        g_fake.dwMajorVersion = c.dwMajorVersion;
        g_fake.bLocked = c.bLocked;
        g_fake.connectState = c.state;
        const std::string shown = Narrow(c.szInput) + " v" + std::to_string(c.dwMajorVersion);
        EXPECT_EQ(c.nExpected, CheckDesktopStateCommandLine()) << shown;
        const bool bSaver = c.screenSaver[0] != FALSE;
        EXPECT_EQ(bSaver ? 2u : 1u, g_fake.nScreenSaverAsked) << shown;
        EXPECT_EQ(bSaver ? std::vector<std::wstring>{L"Screen-saver"} : std::vector<std::wstring>{},
                  g_fake.openedDesktops)
            << shown;
    }
}

TEST_F(Startup, ConsoleLockRecordsAnotherInputDesktopOnly)
{
    // The record lies at the root of the current drive: C: here, inside the prefix.
    TempFolder folder;
    ASSERT_TRUE(SetCurrentDirectoryW(folder.Path().c_str()));
    const std::wstring record = L"C:\\kvnxs\\KVNXST.data";
    DeleteFileW(record.c_str());
    auto recorded = [&]
    {
        wchar_t sz[MAX_PATH] = {};
        GetPrivateProfileStringW(L"Desktop", L"Desktop", L"<none>", sz, MAX_PATH, record.c_str());
        return Narrow(sz);
    };

    for (const wchar_t* szInput : {L"Winlogon", L"Screen-saver", L"Default"})
    {
        g_fake.inputDesktop = szInput;
        CheckDesktopStateCommandLine();
        EXPECT_EQ("<none>", recorded()) << Narrow(szInput);
        EXPECT_EQ(0, g_nDesktopState) << Narrow(szInput);
    }
    g_fake.inputDesktop = L"Desk2";
    EXPECT_EQ(KV_EXIT_CONSOLE_USABLE, CheckDesktopStateCommandLine());
    EXPECT_EQ("Desk2", recorded());
    EXPECT_EQ(KV_DESKTOP_STATE_UNUSABLE, g_nDesktopState);
    g_fake.inputDesktop = L"Winlogon";
    CheckDesktopStateCommandLine();
    EXPECT_EQ("Desk2", recorded());

    // The real system: an agent on a desktop of its own sees the test's desktop as the input one.
    DeleteFileW(record.c_str());
    AgentFolder agent;
    ASSERT_TRUE(agent.Ready());
    const AgentRun run = agent.RunAlone(L"-ConsoleLock");
    EXPECT_EQ(Code(KV_EXIT_CONSOLE_USABLE), run.dwExitCode) << run.log;
    wchar_t szOwn[MAX_PATH] = {};
    DWORD cb = 0;
    GetUserObjectInformationW(GetThreadDesktop(GetCurrentThreadId()), UOI_NAME, szOwn, sizeof szOwn, &cb);
    EXPECT_EQ(Narrow(szOwn), recorded());

    DeleteFileW(record.c_str());
    RemoveDirectoryW(L"C:\\kvnxs");
    SetCurrentDirectoryW(ModuleFolder().c_str());
}

TEST_F(Startup, DesktopStateIsUsableOnTheAgentsOwnActiveDesktopOrTheScreenSaver)
{
    const struct
    {
        const wchar_t* szOwn;
        const wchar_t* szInput;
        WTS_CONNECTSTATE_CLASS state;
        int nExpected;
    } cases[] = {
        {L"Default", L"Default", WTSActive, KV_EXIT_CONSOLE_USABLE},
        {L"Default", L"Default", WTSDisconnected, KV_EXIT_CONSOLE_LOCKED},
        {L"Default", L"Screen-saver", WTSDisconnected, KV_EXIT_CONSOLE_USABLE},
        {L"Default", L"Other", WTSActive, KV_EXIT_CONSOLE_LOCKED},
        {L"Default", L"", WTSActive, KV_EXIT_CONSOLE_LOCKED},
        // The logon desktop never counts, not even for an agent that runs on it.
        {L"Winlogon", L"Winlogon", WTSActive, KV_EXIT_CONSOLE_LOCKED},
    };
    for (const auto& c : cases)
    {
        g_fake.inputDesktop = c.szInput;
        g_fake.connectState = c.state;
        wcscpy_s(g_szDesktopName, c.szOwn);
        EXPECT_EQ(c.nExpected, CheckDesktopState()) << Narrow(c.szInput);
        EXPECT_EQ(c.nExpected == KV_EXIT_CONSOLE_USABLE ? KV_DESKTOP_STATE_USABLE : KV_DESKTOP_STATE_UNUSABLE,
                  g_nDesktopState)
            << Narrow(c.szInput);
    }
}

TEST_F(Startup, SessionActionsRunThroughTheEntryPointOnlyWhenSpelledExactly)
{
    const HINSTANCE hInstance = GetModuleHandleW(nullptr);
    EXPECT_EQ(1, AgentMain(hInstance, L"-Logoff"));
    g_fake.bExitWindowsResult = FALSE;
    EXPECT_EQ(0, AgentMain(hInstance, L"-LogoffForce"));
    EXPECT_EQ(std::vector<UINT>({EWX_LOGOFF, EWX_FORCE}), g_fake.exitWindowsFlags);
    EXPECT_EQ(1, AgentMain(hInstance, L"-LockWorkstation"));
    EXPECT_EQ(1, g_fake.nLocks);
    g_fake.inputDesktop = L"Winlogon";
    EXPECT_EQ(KV_EXIT_CONSOLE_LOCKED, AgentMain(hInstance, L"-ConsoleLock"));

    TestDesktop desktop;
    for (const wchar_t* szCmdLine : {L"-Logoffx", L"-logoff", L"-LogoffForce ", L"x-LockWorkstation"})
        OnDesktop(desktop, [&] { EXPECT_EQ(KV_EXIT_NO_TRAY_WINDOW, AgentMain(hInstance, szCmdLine)); });
    EXPECT_EQ(2u, g_fake.exitWindowsFlags.size());
    EXPECT_EQ(1, g_fake.nLocks);
}

TEST_F(Startup, SystemAccountIsRefusedOnlyInResidentMode)
{
    TestDesktop desktop;
    for (const wchar_t* szUser : {L"SYSTEM", L"system"})
    {
        wcscpy_s(g_szUserName, szUser);
        OnDesktop(desktop, [] { EXPECT_EQ(KV_EXIT_CONSOLE_LOCKED, RunResidentMode(6129)); });
        // Refused before the single-instance object and the stop event exist.
        EXPECT_EQ(nullptr, g_hInstanceMapping);
        EXPECT_EQ(nullptr, g_hStopEvent);
    }
    EXPECT_EQ(KV_EXIT_CONSOLE_USABLE,
              RunCommandOption(KvCommandOption::ConsoleLock, L"-ConsoleLock", nullptr));
    EXPECT_EQ(1, RunCommandOption(KvCommandOption::Logoff, L"-Logoff", nullptr));
    EXPECT_EQ(1u, g_fake.exitWindowsFlags.size());

    wcscpy_s(g_szUserName, L"systemd");
    OnDesktop(desktop, [] { EXPECT_EQ(KV_EXIT_NO_TRAY_WINDOW, RunResidentMode(6129)); });
    EXPECT_EQ(nullptr, g_hInstanceMapping) << "closed again on the way out";
}

TEST_F(Startup, MachineWidePortWinsOnlyAsAFourByteDword)
{
    SavedSetting port(HKEY_LOCAL_MACHINE, L"Port");
    ASSERT_TRUE(port.Opened());
    port.Remove();
    EXPECT_EQ(5000u, GetServicePort(5000));
    EXPECT_EQ(6129u, GetServicePort(KV_PORT_NONE));
    ASSERT_TRUE(port.SetDword(7000));
    EXPECT_EQ(7000u, GetServicePort(5000));
    EXPECT_EQ(7000u, GetServicePort(KV_PORT_NONE));

    const DWORD dw7000 = 7000;
    const unsigned long long qw7000 = 7000;
    const BYTE bigEndian7000[4] = {0x00, 0x00, 0x1B, 0x58};
    const struct
    {
        DWORD dwType;
        const void* pData;
        DWORD cb;
    } ignored[] = {
        {REG_SZ, L"7000", 10},   {REG_BINARY, &dw7000, 4},
        {REG_QWORD, &qw7000, 8}, {REG_DWORD_BIG_ENDIAN, bigEndian7000, 4},
        {REG_DWORD, &dw7000, 2}, {REG_DWORD, &qw7000, 8},
    };
    for (const auto& c : ignored)
    {
        ASSERT_TRUE(port.Set(c.dwType, c.pData, c.cb));
        EXPECT_EQ(5000u, GetServicePort(5000)) << "type " << c.dwType << " size " << c.cb;
    }
}
