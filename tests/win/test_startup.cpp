// The entry point's steps called in this process: single-instance object, service port, console
// state through the system table, the one-shot options' routes, the system-account refusal and the
// resource library's order.
#include "test_agent_support.h"

#include "KVNXST.h"
#include "ProfileReg.h"
#include "UtilService.h"
#include "UtilWTS.h"
#include "resource.h"

#include <gtest/gtest.h>

#include <cstring>
#include <thread>
#include <vector>

using namespace kvtest;

namespace
{

// --- Answers given through the system table ------------------------------------------------------

struct FakeSystem
{
    // Input desktop: its name, or a failure with the error.
    std::wstring inputDesktop = L"Default";
    DWORD dwInputDesktopError = 0;
    // Screen saver: the answers to successive questions; the last one repeats.
    std::vector<BOOL> screenSaverRunning{FALSE};
    int nScreenSaverAsked = 0;
    std::vector<std::wstring> openedDesktops;
    // Session: WTSConnectState and the lock flags of the extended record.
    WTS_CONNECTSTATE_CLASS connectState = WTSActive;
    bool bLocked = false;
    DWORD dwMajorVersion = 10;
    // Session actions.
    std::vector<UINT> exitWindowsFlags;
    BOOL bExitWindowsResult = TRUE;
    int nLockCalls = 0;
};

FakeSystem g_fake;

BOOL FakeGetInputDesktopName(wchar_t* szName, DWORD cchName)
{
    if (g_fake.dwInputDesktopError != 0)
    {
        szName[0] = L'\0';
        SetLastError(g_fake.dwInputDesktopError);
        return FALSE;
    }
    wcsncpy_s(szName, cchName, g_fake.inputDesktop.c_str(), _TRUNCATE);
    return TRUE;
}

BOOL FakeGetScreenSaverRunning(BOOL* pbRunning)
{
    const size_t i = static_cast<size_t>(g_fake.nScreenSaverAsked++);
    *pbRunning = g_fake.screenSaverRunning[std::min(i, g_fake.screenSaverRunning.size() - 1)];
    return TRUE;
}

HDESK WINAPI FakeOpenDesktopW(LPCWSTR lpszDesktop, DWORD, BOOL, ACCESS_MASK)
{
    g_fake.openedDesktops.push_back(lpszDesktop);
    SetLastError(ERROR_FILE_NOT_FOUND);
    return nullptr;
}

BOOL WINAPI FakeWTSQuerySessionInformationW(HANDLE, DWORD, WTS_INFO_CLASS infoClass, LPWSTR* ppBuffer,
                                            DWORD* pcbReturned)
{
    if (infoClass == WTSConnectState)
    {
        auto* pState = static_cast<INT*>(LocalAlloc(LPTR, sizeof(INT)));
        *pState = g_fake.connectState;
        *ppBuffer = reinterpret_cast<LPWSTR>(pState);
        *pcbReturned = sizeof(INT);
        return TRUE;
    }
    if (infoClass == static_cast<WTS_INFO_CLASS>(KV_WTSSessionInfoEx))
    {
        auto* pInfo = static_cast<KV_WTSINFOEXW*>(LocalAlloc(LPTR, sizeof(KV_WTSINFOEXW)));
        pInfo->Level = 1;
        pInfo->Data.WTSInfoExLevel1.SessionFlags =
            g_fake.bLocked ? KV_WTS_SESSIONSTATE_LOCK : KV_WTS_SESSIONSTATE_UNLOCK;
        *ppBuffer = reinterpret_cast<LPWSTR>(pInfo);
        *pcbReturned = sizeof(KV_WTSINFOEXW);
        return TRUE;
    }
    SetLastError(ERROR_NOT_SUPPORTED);
    return FALSE;
}

void WINAPI FakeWTSFreeMemory(PVOID pMemory)
{
    LocalFree(pMemory);
}

DWORD WINAPI FakeWTSGetActiveConsoleSessionId()
{
    return 1;
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

BOOL WINAPI FakeLockWorkStation()
{
    ++g_fake.nLockCalls;
    return TRUE;
}

// The system table with every answer above. Nothing in this program may reach the real
// ExitWindowsEx, which would end the whole Wine session.
KvSystemApi FakeSystemApi()
{
    KvSystemApi api = KvDefaultSystemApi();
    api.pfnGetInputDesktopName = FakeGetInputDesktopName;
    api.pfnGetScreenSaverRunning = FakeGetScreenSaverRunning;
    api.pfnOpenDesktopW = FakeOpenDesktopW;
    api.pfnWTSQuerySessionInformationW = FakeWTSQuerySessionInformationW;
    api.pfnWTSFreeMemory = FakeWTSFreeMemory;
    api.pfnWTSGetActiveConsoleSessionId = FakeWTSGetActiveConsoleSessionId;
    api.pfnRtlGetVersion = FakeRtlGetVersion;
    api.pfnExitWindowsEx = FakeExitWindowsEx;
    api.pfnLockWorkStation = FakeLockWorkStation;
    return api;
}

const KvSystemApi g_fakeApi = FakeSystemApi();

class FakeSystemEnvironment : public ::testing::Environment
{
public:
    void SetUp() override { KvSetSystemApi(&g_fakeApi); }
    void TearDown() override { KvSetSystemApi(nullptr); }
};

const ::testing::Environment* const g_pEnvironment =
    ::testing::AddGlobalTestEnvironment(new FakeSystemEnvironment);

// Each test starts from the same answers and process-wide values.
class Startup : public ::testing::Test
{
protected:
    void SetUp() override
    {
        g_fake = FakeSystem();
        wcscpy_s(g_szDesktopName, L"Default");
        wcscpy_s(g_szUserName, L"user");
        g_bOneTimeSession = 0;
        g_nDesktopState = 0;
        g_nSessionId = 1;
        CloseInstanceMapping();
    }
    void TearDown() override { CloseInstanceMapping(); }
};

// Runs fn on a thread of its own that sits on desktop.
template <typename Fn> void OnDesktop(const TestDesktop& desktop, Fn fn)
{
    std::thread thread(
        [&]
        {
            ASSERT_TRUE(desktop.SetOnThisThread()) << GetLastError();
            fn();
        });
    thread.join();
}

bool MappingExists(const std::wstring& name)
{
    HANDLE h = OpenFileMappingW(FILE_MAP_READ, FALSE, name.c_str());
    if (h == nullptr)
        return false;
    CloseHandle(h);
    return true;
}

} // namespace

// --- Single instance -------------------------------------------------------------------------------

TEST_F(Startup, CheckInstanceHoldsAnObjectNamedAfterTheThreadsDesktop)
{
    TestDesktop first;
    TestDesktop second;
    ASSERT_NE(nullptr, first.Handle());
    ASSERT_NE(nullptr, second.Handle());
    const std::wstring firstName = first.Name() + L" Kestrova Vexa Remote Control Tray Icon";
    const std::wstring secondName = second.Name() + L" Kestrova Vexa Remote Control Tray Icon";

    OnDesktop(first, [] { EXPECT_EQ(1, CheckInstance()); });
    EXPECT_NE(nullptr, g_hInstanceMapping);
    EXPECT_TRUE(MappingExists(firstName));
    EXPECT_FALSE(MappingExists(secondName));

    // Another agent on the same desktop finds it and still keeps its own handle.
    HANDLE hFirstAgent = g_hInstanceMapping;
    g_hInstanceMapping = nullptr;
    OnDesktop(first, [] { EXPECT_EQ(0, CheckInstance()); });
    EXPECT_NE(nullptr, g_hInstanceMapping);
    CloseInstanceMapping();
    EXPECT_TRUE(MappingExists(firstName));

    // Another desktop of the same session is free.
    OnDesktop(second, [] { EXPECT_EQ(1, CheckInstance()); });
    CloseInstanceMapping();

    // Once the first agent lets go, its desktop is free again.
    CloseHandle(hFirstAgent);
    EXPECT_FALSE(MappingExists(firstName));
    OnDesktop(first, [] { EXPECT_EQ(1, CheckInstance()); });
}

// --- Service port ---------------------------------------------------------------------------------

TEST_F(Startup, MachineWidePortWinsOnlyAsAFourByteDword)
{
    ServicePortValue port;
    ASSERT_TRUE(port.Opened());

    port.Remove();
    EXPECT_EQ(5000u, GetServicePort(5000));
    EXPECT_EQ(6129u, GetServicePort(KV_PORT_NONE));
    EXPECT_EQ(0u, GetServicePort(0));

    ASSERT_TRUE(port.SetDword(7000));
    EXPECT_EQ(7000u, GetServicePort(5000));
    EXPECT_EQ(7000u, GetServicePort(KV_PORT_NONE));
    ASSERT_TRUE(port.SetDword(0));
    EXPECT_EQ(0u, GetServicePort(5000));

    // Anything but a 4-byte REG_DWORD is ignored.
    const DWORD dw7000 = 7000;
    const unsigned long long qw7000 = 7000;
    const wchar_t sz7000[] = L"7000";
    const BYTE bigEndian7000[4] = {0x00, 0x00, 0x1B, 0x58};
    ASSERT_TRUE(port.Set(REG_SZ, sz7000, sizeof sz7000));
    EXPECT_EQ(5000u, GetServicePort(5000));
    ASSERT_TRUE(port.Set(REG_BINARY, &dw7000, sizeof dw7000));
    EXPECT_EQ(5000u, GetServicePort(5000));
    ASSERT_TRUE(port.Set(REG_QWORD, &qw7000, sizeof qw7000));
    EXPECT_EQ(5000u, GetServicePort(5000));
    ASSERT_TRUE(port.Set(REG_DWORD_BIG_ENDIAN, bigEndian7000, sizeof bigEndian7000));
    EXPECT_EQ(5000u, GetServicePort(5000));
    ASSERT_TRUE(port.Set(REG_DWORD, &dw7000, 2));
    EXPECT_EQ(5000u, GetServicePort(5000));
    EXPECT_EQ(6129u, GetServicePort(KV_PORT_NONE));
    ASSERT_TRUE(port.Set(REG_DWORD, &qw7000, 8));
    EXPECT_EQ(5000u, GetServicePort(5000));
}

TEST_F(Startup, OneTimePortIsNeverLookedUp)
{
    ServicePortValue port;
    ASSERT_TRUE(port.Opened());
    ASSERT_TRUE(port.SetDword(7000));

    unsigned int uiPort = 0;
    ASSERT_EQ(1, ParseServicePort(L"-onetimesession 6200", &uiPort));
    EXPECT_EQ(6200u, uiPort);
    EXPECT_EQ(1, g_bOneTimeSession);

    ASSERT_EQ(1, ParseServicePort(L"5000", &uiPort));
    EXPECT_EQ(7000u, uiPort);
    EXPECT_EQ(0, g_bOneTimeSession);

    uiPort = 1234;
    EXPECT_EQ(0, ParseServicePort(L"-onetimesession", &uiPort));
    EXPECT_EQ(0, ParseServicePort(L"-onetimesession 0", &uiPort));
    EXPECT_EQ(1234u, uiPort);
}

// --- Console state --------------------------------------------------------------------------------

TEST_F(Startup, ConsoleLockAnswersFromTheInputDesktop)
{
    struct Case
    {
        const wchar_t* szInput;
        DWORD dwMajorVersion;
        bool bLocked;
        WTS_CONNECTSTATE_CLASS state;
        int nExpected;
    };
    const Case cases[] = {
        {L"Winlogon", 10, false, WTSActive, KV_EXIT_CONSOLE_LOCKED},
        {L"WINLOGON", 10, false, WTSActive, KV_EXIT_CONSOLE_LOCKED},
        {L"Screen-saver", 10, true, WTSDisconnected, KV_EXIT_CONSOLE_USABLE},
        {L"Default", 10, false, WTSActive, KV_EXIT_CONSOLE_USABLE},
        {L"Default", 10, true, WTSActive, KV_EXIT_CONSOLE_LOCKED},
        // Before Windows 10 the session's state decides, not the lock flags.
        {L"Default", 6, true, WTSActive, KV_EXIT_CONSOLE_USABLE},
        {L"Default", 6, false, WTSDisconnected, KV_EXIT_CONSOLE_LOCKED},
    };
    for (const Case& c : cases)
    {
        g_fake = FakeSystem();
        g_fake.inputDesktop = c.szInput;
        g_fake.dwMajorVersion = c.dwMajorVersion;
        g_fake.bLocked = c.bLocked;
        g_fake.connectState = c.state;
        EXPECT_EQ(c.nExpected, CheckDesktopStateCommandLine())
            << Narrow(c.szInput) << " version " << c.dwMajorVersion << " locked " << c.bLocked;
        EXPECT_TRUE(g_fake.openedDesktops.empty()) << "no screen saver was running";
    }

    g_fake = FakeSystem();
    g_fake.dwInputDesktopError = ERROR_ACCESS_DENIED;
    EXPECT_EQ(KV_EXIT_CONSOLE_LOCKED, CheckDesktopStateCommandLine());
}

TEST_F(Startup, ConsoleLockStopsTheScreenSaverFirst)
{
    // Stopped: the answer comes from the desktop beneath it.
    g_fake.screenSaverRunning = {TRUE, FALSE};
    g_fake.bLocked = true;
    EXPECT_EQ(KV_EXIT_CONSOLE_LOCKED, CheckDesktopStateCommandLine());
    EXPECT_EQ(2, g_fake.nScreenSaverAsked);
    ASSERT_EQ(1u, g_fake.openedDesktops.size());
    EXPECT_EQ(L"Screen-saver", g_fake.openedDesktops[0]);

    // Still running after the second look.
    g_fake = FakeSystem();
    g_fake.screenSaverRunning = {TRUE, TRUE};
    g_fake.inputDesktop = L"Other";
    EXPECT_EQ(KV_EXIT_SCREEN_SAVER_RUNNING, CheckDesktopStateCommandLine());
    EXPECT_EQ(2, g_fake.nScreenSaverAsked);
    EXPECT_EQ(1u, g_fake.openedDesktops.size());
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
        return std::wstring(sz);
    };

    for (const wchar_t* szInput : {L"Winlogon", L"Screen-saver", L"Default"})
    {
        g_fake.inputDesktop = szInput;
        g_nDesktopState = 0;
        CheckDesktopStateCommandLine();
        EXPECT_EQ(INVALID_FILE_ATTRIBUTES, GetFileAttributesW(record.c_str())) << Narrow(szInput);
        EXPECT_EQ(0, g_nDesktopState) << Narrow(szInput);
    }

    g_fake.inputDesktop = L"Desk2";
    g_fake.bLocked = false;
    EXPECT_EQ(KV_EXIT_CONSOLE_USABLE, CheckDesktopStateCommandLine());
    EXPECT_EQ(L"Desk2", recorded());
    EXPECT_EQ(KV_DESKTOP_STATE_UNUSABLE, g_nDesktopState);

    // The next look overwrites it; a look at the logon desktop leaves it alone.
    g_fake.inputDesktop = L"Desk3";
    CheckDesktopStateCommandLine();
    EXPECT_EQ(L"Desk3", recorded());
    g_fake.inputDesktop = L"Winlogon";
    CheckDesktopStateCommandLine();
    EXPECT_EQ(L"Desk3", recorded());

    // The real system: an agent on a desktop of its own sees the test's desktop as the input one.
    DeleteFileW(record.c_str());
    AgentFolder agent;
    ASSERT_TRUE(agent.Ready());
    const AgentRun run = agent.RunOnOwnDesktop(L"-ConsoleLock");
    EXPECT_EQ(Code(KV_EXIT_CONSOLE_USABLE), run.dwExitCode) << run.log;
    wchar_t szOwn[MAX_PATH] = {};
    DWORD cb = 0;
    GetUserObjectInformationW(GetThreadDesktop(GetCurrentThreadId()), UOI_NAME, szOwn, sizeof szOwn, &cb);
    EXPECT_EQ(std::wstring(szOwn), recorded());

    DeleteFileW(record.c_str());
    RemoveDirectoryW(L"C:\\kvnxs");
    SetCurrentDirectoryW(ModuleFolder().c_str());
}

TEST_F(Startup, DesktopStateIsUsableOnTheAgentsOwnActiveDesktopOrTheScreenSaver)
{
    struct Case
    {
        const wchar_t* szInput;
        WTS_CONNECTSTATE_CLASS state;
        int nExpected;
    };
    const Case cases[] = {
        {L"Default", WTSActive, KV_EXIT_CONSOLE_USABLE},
        {L"Default", WTSDisconnected, KV_EXIT_CONSOLE_LOCKED},
        {L"Screen-saver", WTSDisconnected, KV_EXIT_CONSOLE_USABLE},
        {L"Winlogon", WTSActive, KV_EXIT_CONSOLE_LOCKED},
        {L"Other", WTSActive, KV_EXIT_CONSOLE_LOCKED},
    };
    for (const Case& c : cases)
    {
        g_fake = FakeSystem();
        g_fake.inputDesktop = c.szInput;
        g_fake.connectState = c.state;
        g_nDesktopState = 0;
        EXPECT_EQ(c.nExpected, CheckDesktopState()) << Narrow(c.szInput);
        EXPECT_EQ(c.nExpected == KV_EXIT_CONSOLE_USABLE ? KV_DESKTOP_STATE_USABLE : KV_DESKTOP_STATE_UNUSABLE,
                  g_nDesktopState)
            << Narrow(c.szInput);
    }

    // The logon desktop never counts as usable, not even for an agent that runs on it.
    g_fake = FakeSystem();
    g_fake.inputDesktop = L"Winlogon";
    wcscpy_s(g_szDesktopName, L"Winlogon");
    EXPECT_EQ(KV_EXIT_CONSOLE_LOCKED, CheckDesktopState());

    g_fake = FakeSystem();
    g_fake.dwInputDesktopError = ERROR_ACCESS_DENIED;
    EXPECT_EQ(KV_EXIT_CONSOLE_LOCKED, CheckDesktopState());
    EXPECT_EQ(KV_DESKTOP_STATE_UNUSABLE, g_nDesktopState);
}

// --- Session actions and the system account --------------------------------------------------------

TEST_F(Startup, SessionActionsRunThroughTheEntryPoint)
{
    g_fake.bExitWindowsResult = TRUE;
    EXPECT_EQ(1, AgentMain(GetModuleHandleW(nullptr), L"-Logoff"));
    g_fake.bExitWindowsResult = FALSE;
    EXPECT_EQ(0, AgentMain(GetModuleHandleW(nullptr), L"-LogoffForce"));
    EXPECT_EQ(std::vector<UINT>({EWX_LOGOFF, EWX_FORCE}), g_fake.exitWindowsFlags);

    EXPECT_EQ(1, AgentMain(GetModuleHandleW(nullptr), L"-LockWorkstation"));
    EXPECT_EQ(1, g_fake.nLockCalls);

    EXPECT_EQ(KV_EXIT_CONSOLE_USABLE, AgentMain(GetModuleHandleW(nullptr), L"-ConsoleLock"));
    g_fake.inputDesktop = L"Winlogon";
    EXPECT_EQ(KV_EXIT_CONSOLE_LOCKED, AgentMain(GetModuleHandleW(nullptr), L"-ConsoleLock"));

    // Glued or differently spelled, they are the tray agent's port instead: nothing is acted on.
    TestDesktop desktop;
    for (const wchar_t* szCmdLine : {L"-Logoffx", L"-logoff", L"-LogoffForce ", L"x-LockWorkstation"})
        OnDesktop(desktop, [&]
                  { EXPECT_EQ(KV_EXIT_NO_TRAY_WINDOW, AgentMain(GetModuleHandleW(nullptr), szCmdLine)); });
    EXPECT_EQ(2u, g_fake.exitWindowsFlags.size());
    EXPECT_EQ(1, g_fake.nLockCalls);
}

TEST_F(Startup, SystemAccountIsRefusedOnlyInResidentMode)
{
    TestDesktop desktop;
    for (const wchar_t* szUser : {L"SYSTEM", L"system", L"System"})
    {
        wcscpy_s(g_szUserName, szUser);
        OnDesktop(desktop, [] { EXPECT_EQ(KV_EXIT_CONSOLE_LOCKED, RunResidentMode(6129)); });
        // Refused before the single-instance object and the stop event exist.
        EXPECT_EQ(nullptr, g_hInstanceMapping);
        EXPECT_EQ(nullptr, g_hStopEvent);
    }

    // The one-shot options still run.
    EXPECT_EQ(KV_EXIT_CONSOLE_USABLE,
              RunCommandOption(KvCommandOption::ConsoleLock, L"-ConsoleLock", nullptr));
    EXPECT_EQ(1, RunCommandOption(KvCommandOption::Logoff, L"-Logoff", nullptr));
    EXPECT_EQ(1u, g_fake.exitWindowsFlags.size());
    EXPECT_EQ(1, RunCommandOption(KvCommandOption::LockWorkstation, L"-LockWorkstation", nullptr));

    // Any other account gets as far as the tray window.
    wcscpy_s(g_szUserName, L"systemd");
    OnDesktop(desktop, [] { EXPECT_EQ(KV_EXIT_NO_TRAY_WINDOW, RunResidentMode(6129)); });
    EXPECT_EQ(nullptr, g_hInstanceMapping) << "closed again on the way out";
    EXPECT_EQ(nullptr, g_hStopEvent);
}

// --- Resource library -----------------------------------------------------------------------------

namespace
{

// A copy of the built resource library with an extra RCDATA resource carrying marker, so a test can
// tell which copy was loaded.
bool CopyMarkedResourceLibrary(const std::wstring& target, const char* marker)
{
    if (!CopyFileW((ModuleFolder() + L"KVNXSTRES.dll").c_str(), target.c_str(), FALSE))
        return false;
    HANDLE hUpdate = BeginUpdateResourceW(target.c_str(), FALSE);
    if (hUpdate == nullptr)
        return false;
    const BOOL bUpdated = UpdateResourceW(
        hUpdate, MAKEINTRESOURCEW(10), MAKEINTRESOURCEW(4242), MAKELANGID(LANG_NEUTRAL, SUBLANG_NEUTRAL),
        const_cast<char*>(marker), static_cast<DWORD>(std::strlen(marker) + 1));
    return EndUpdateResourceW(hUpdate, !bUpdated) && bUpdated;
}

std::string Marker(HMODULE hModule)
{
    HRSRC hResource = FindResourceW(hModule, MAKEINTRESOURCEW(4242), MAKEINTRESOURCEW(10));
    if (hResource == nullptr)
        return "<none>";
    HGLOBAL hData = LoadResource(hModule, hResource);
    return hData != nullptr ? std::string(static_cast<const char*>(LockResource(hData))) : "<none>";
}

} // namespace

TEST_F(Startup, ResourceLibraryForTheLanguageThenBesideTheAgent)
{
    TempFolder folder;
    ASSERT_TRUE(CreateDirectoryW((folder.Path() + L"Localization").c_str(), nullptr));
    ASSERT_TRUE(CreateDirectoryW((folder.Path() + L"Localization\\fr").c_str(), nullptr));
    ASSERT_TRUE(CopyMarkedResourceLibrary(folder.Path() + L"KVNXSTRES.dll", "beside"));
    ASSERT_TRUE(CopyMarkedResourceLibrary(folder.Path() + L"Localization\\fr\\KVNXSTRES.dll", "fr"));

    struct Case
    {
        const wchar_t* szLanguage;
        const char* expected;
    };
    const Case cases[] = {
        {L"fr", "fr"},
        {L"de", "beside"}, // no such translation
        {L"", "beside"},   // no language stored
        {nullptr, "beside"},
        {L"..\\fr", "beside"}, // not a language code, though the folder exists
        {L"fr\\..\\fr", "beside"},
    };
    for (const Case& c : cases)
    {
        HMODULE hModule = LoadResourceLibraryFrom(folder.Path().c_str(), c.szLanguage);
        ASSERT_NE(nullptr, hModule) << (c.szLanguage != nullptr ? Narrow(c.szLanguage) : "null");
        EXPECT_EQ(c.expected, Marker(hModule)) << (c.szLanguage != nullptr ? Narrow(c.szLanguage) : "null");
        // Usable as the agent's resource module.
        wchar_t* szText = nullptr;
        EXPECT_GT(LoadStringW(hModule, IDS_SETTINGS_NO_WRITE_ACCESS, reinterpret_cast<LPWSTR>(&szText), 0),
                  0);
        FreeLibrary(hModule);
    }

    // Without the English library only the translation can load; with neither, nothing does and
    // the agent's own module serves.
    ASSERT_TRUE(DeleteFileW((folder.Path() + L"KVNXSTRES.dll").c_str()));
    HMODULE hModule = LoadResourceLibraryFrom(folder.Path().c_str(), L"fr");
    EXPECT_EQ("fr", Marker(hModule));
    FreeLibrary(hModule);
    EXPECT_EQ(nullptr, LoadResourceLibraryFrom(folder.Path().c_str(), L"de"));
    ASSERT_TRUE(DeleteFileW((folder.Path() + L"Localization\\fr\\KVNXSTRES.dll").c_str()));
    EXPECT_EQ(nullptr, LoadResourceLibraryFrom(folder.Path().c_str(), L"fr"));
}
