// The entry point's steps called in this process, with the system table answering what Wine
// cannot: console state, session actions, the system-account refusal and the service port.
#include "test_agent_support.h"

#include "KVNXST.h"
#include "KvSystemApi.h"
#include "UtilWTS.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <thread>
#include <vector>

using namespace kvtest;

namespace
{

// Table rows name the leading fields.
struct FakeSystem
{
    std::wstring inputDesktop = L"Default"; // empty: the desktop cannot be opened
    WTS_CONNECTSTATE_CLASS connectState = WTSActive;
    bool bLocked = false;
    DWORD dwMajorVersion = 10;
    std::vector<BOOL> screenSaver{FALSE}; // successive answers; the last repeats
    size_t nScreenSaverAsked = 0;
    std::vector<std::wstring> openedDesktops{};
    std::vector<UINT> exitWindowsFlags{};
    BOOL bExitWindowsResult = TRUE;
    int nLocks = 0;
};

FakeSystem g_fake;

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

// Installed for the whole suite: nothing here may reach the real ExitWindowsEx, which would end
// the Wine session.
KvSystemApi FakeSystemApi()
{
    KvSystemApi api = KvDefaultSystemApi();
    api.pfnGetInputDesktopName = [](wchar_t* szName, DWORD cchName) -> BOOL
    {
        SetLastError(ERROR_ACCESS_DENIED);
        return !g_fake.inputDesktop.empty() &&
               wcsncpy_s(szName, cchName, g_fake.inputDesktop.c_str(), _TRUNCATE) == 0;
    };
    api.pfnGetScreenSaverRunning = [](BOOL* pbRunning) -> BOOL
    {
        const size_t i = std::min(g_fake.nScreenSaverAsked++, g_fake.screenSaver.size() - 1);
        *pbRunning = g_fake.screenSaver[i];
        return TRUE;
    };
    api.pfnOpenDesktopW = [](LPCWSTR lpszDesktop, DWORD, BOOL, ACCESS_MASK) -> HDESK
    {
        g_fake.openedDesktops.push_back(lpszDesktop);
        return nullptr;
    };
    api.pfnWTSQuerySessionInformationW = FakeWTSQuerySessionInformationW;
    api.pfnWTSFreeMemory = [](PVOID p) { LocalFree(p); };
    api.pfnWTSGetActiveConsoleSessionId = []() -> DWORD { return 1; };
    api.pfnRtlGetVersion = [](OSVERSIONINFOEXW* pVersion) -> LONG
    {
        pVersion->dwMajorVersion = g_fake.dwMajorVersion;
        pVersion->dwMinorVersion = g_fake.dwMajorVersion == 10 ? 0 : 1;
        pVersion->wServicePackMajor = 0;
        return 0;
    };
    api.pfnExitWindowsEx = [](UINT uFlags, DWORD) -> BOOL
    {
        g_fake.exitWindowsFlags.push_back(uFlags);
        return g_fake.bExitWindowsResult;
    };
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

// The body of the test below.
void SessionActions()
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

    // The system account is refused as the tray agent, before its single-instance object and stop
    // event exist, but not for one-shot options.
    for (const wchar_t* szUser : {L"SYSTEM", L"system"})
    {
        wcscpy_s(g_szUserName, szUser);
        EXPECT_EQ(KV_EXIT_CONSOLE_LOCKED, RunResidentMode(6129));
        EXPECT_EQ(nullptr, g_hInstanceMapping);
        EXPECT_EQ(nullptr, g_hStopEvent);
    }
    g_fake.inputDesktop = L"Default";
    EXPECT_EQ(KV_EXIT_CONSOLE_USABLE,
              RunCommandOption(KvCommandOption::ConsoleLock, L"-ConsoleLock", nullptr));
    wcscpy_s(g_szUserName, L"systemd");
    // Under Wine this thread cannot make windows on the test's desktop, so the tray agent stops
    // there; the built agent's tests run it in full.
    EXPECT_NE(KV_EXIT_CONSOLE_LOCKED, RunResidentMode(6129));
    EXPECT_EQ(nullptr, g_hInstanceMapping) << "closed again on the way out";
}

} // namespace

TEST_F(Startup, ConsoleStateFromTheInputDesktopForTheOptionAfterTheScreenSaverAndForTheAgent)
{
    const struct
    {
        FakeSystem fake;
        int nOption;  // -ConsoleLock's answer
        bool bUsable; // the tray agent's
        const wchar_t* szOwn = L"Default";
    } cases[] = {
        // Another input desktop is recorded (first, so that no later row may overwrite it).
        {{L"Desk2"}, KV_EXIT_CONSOLE_USABLE, false},
        {{L"Winlogon"}, KV_EXIT_CONSOLE_LOCKED, false},
        // The logon desktop never counts, not even for an agent that runs on it.
        {{L"Winlogon"}, KV_EXIT_CONSOLE_LOCKED, false, L"Winlogon"},
        {{L"Screen-saver", WTSDisconnected, true}, KV_EXIT_CONSOLE_USABLE, true},
        {{L""}, KV_EXIT_CONSOLE_LOCKED, false},
        {{L"Default"}, KV_EXIT_CONSOLE_USABLE, true},
        // From Windows 10 the option reads the lock flags, the agent only the session's state.
        {{L"Default", WTSActive, true}, KV_EXIT_CONSOLE_LOCKED, true},
        {{L"Default", WTSDisconnected}, KV_EXIT_CONSOLE_USABLE, false},
        {{L"Default", WTSActive, true, 6}, KV_EXIT_CONSOLE_USABLE, true},
        {{L"Default", WTSDisconnected, false, 6}, KV_EXIT_CONSOLE_LOCKED, false},
        // A screen saver that stops leaves the answer to the desktop beneath; one that stays, -64.
        {{L"Default", WTSActive, true, 10, {TRUE, FALSE}}, KV_EXIT_CONSOLE_LOCKED, true},
        {{L"Default", WTSActive, false, 10, {TRUE}}, KV_EXIT_SCREEN_SAVER_RUNNING, true},
    };
    // The record lies at the root of the current drive: C: here, inside the prefix.
    TempFolder folder;
    ASSERT_TRUE(SetCurrentDirectoryW(folder.Path().c_str()));
    const std::wstring record = L"C:\\kvnxs\\KVNXST.data";
    DeleteFileW(record.c_str());
    for (const auto& c : cases)
    {
        g_fake = c.fake;
        wcscpy_s(g_szDesktopName, c.szOwn);
        g_nDesktopState = 0;
        const std::string shown = Narrow(c.fake.inputDesktop) + " v" + std::to_string(c.fake.dwMajorVersion);
        EXPECT_EQ(c.nOption, CheckDesktopStateCommandLine()) << shown;
        EXPECT_EQ(c.fake.inputDesktop == L"Desk2" ? KV_DESKTOP_STATE_UNUSABLE : 0, g_nDesktopState) << shown;
        wchar_t szRecorded[MAX_PATH] = {};
        GetPrivateProfileStringW(L"Desktop", L"Desktop", L"<none>", szRecorded, MAX_PATH, record.c_str());
        EXPECT_STREQ(L"Desk2", szRecorded) << shown;
        const bool bSaver = c.fake.screenSaver[0] != FALSE;
        EXPECT_EQ(bSaver ? std::vector<std::wstring>{L"Screen-saver"} : std::vector<std::wstring>{},
                  g_fake.openedDesktops)
            << shown;
        EXPECT_EQ(c.bUsable ? KV_EXIT_CONSOLE_USABLE : KV_EXIT_CONSOLE_LOCKED, CheckDesktopState()) << shown;
        EXPECT_EQ(c.bUsable ? KV_DESKTOP_STATE_USABLE : KV_DESKTOP_STATE_UNUSABLE, g_nDesktopState) << shown;
    }
    DeleteFileW(record.c_str());
    RemoveDirectoryW(L"C:\\kvnxs");
    SetCurrentDirectoryW(ModuleFolder().c_str());
}

TEST_F(Startup, SessionActionsRunEvenForTheSystemAccount)
{
    // On a desktop of the test's own, where no other agent holds the single-instance object.
    TestDesktop desktop;
    std::thread(
        [&]
        {
            ASSERT_TRUE(desktop.SetOnThisThread()) << GetLastError();
            SessionActions();
        })
        .join();
}
