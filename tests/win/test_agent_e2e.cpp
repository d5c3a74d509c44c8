// The built agent started as a process: which mode each command line reaches, with which numbers,
// and the exact exit codes, read inside Wine with GetExitCodeProcess.
#include "test_agent_support.h"

#include "KVNXST.h"

#include <gtest/gtest.h>

#include <thread>

using namespace kvtest;

namespace
{

const char kNoTrayWindow[] = "Cannot create the tray window: CTaskBarWindow is not part of this build.";
const char kOneTimeNoBlank[] = "-onetimesession needs to followed by port parameter.";
const char kOneTimeNotANumber[] = "Error converting one-time KVNXST port parameter.";

std::string ThisDesktopName()
{
    wchar_t sz[MAX_PATH] = {};
    DWORD cb = 0;
    GetUserObjectInformationW(GetThreadDesktop(GetCurrentThreadId()), UOI_NAME, sz, sizeof sz, &cb);
    return Narrow(sz);
}

} // namespace

TEST(AgentCommandLine, OneShotOptionsReachTheirModeWithTheirArguments)
{
    AgentFolder agent;
    ASSERT_TRUE(agent.Ready());

    AgentRun run = agent.Run(L"-Permission 5000 2");
    EXPECT_EQ(0u, run.dwExitCode) << run.log;
    EXPECT_EQ(1u, run.CountMessage("INFO", "ClientPermissionDialog", "nPort=5000 nAfType=2")) << run.log;

    run = agent.Run(L"-Invitation 5001 23");
    EXPECT_EQ(0u, run.dwExitCode) << run.log;
    EXPECT_EQ(1u, run.CountMessage("INFO", "ClientPermissionDialog", "nPort=5001 nAfType=23")) << run.log;

    // Earlier rows of the table win over later ones, wherever they stand in the line.
    run = agent.Run(L"cert -ValidateCert -Permission 5002 2");
    EXPECT_EQ(0u, run.dwExitCode) << run.log;
    // The port is the token after the line's first blank, wherever the option stands.
    EXPECT_EQ(1u, run.CountMessage("INFO", "ClientPermissionDialog", "nPort=0 nAfType=0")) << run.log;
    EXPECT_FALSE(run.Has("Displaying ValidateCert dialog")) << run.log;

    run = agent.Run(L"-Permission");
    EXPECT_EQ(0u, run.dwExitCode) << run.log;
    EXPECT_EQ(1u, run.CountMessage("WARN", "KVNXST", "-Permission needs a port and an address family."))
        << run.log;
    EXPECT_FALSE(run.Has("CreatePermissionDialog entering.")) << run.log;

    run = agent.Run(L"C:\\cert.der -ValidateCert now");
    EXPECT_EQ(1u, run.dwExitCode) << run.log;
    EXPECT_EQ(1u, run.CountMessage("INFO", "KVNXST", "Displaying ValidateCert dialog")) << run.log;
    EXPECT_TRUE(run.Has("|ValidateCertSession entering.")) << run.log;

    // The settings editor is missing beside the agent: both settings modes fail with 0. Only
    // "-Settings" reloads the resource library before.
    run = agent.Run(L"-SettingsAsApplication");
    EXPECT_EQ(0u, run.dwExitCode) << run.log;
    EXPECT_TRUE(run.Has(" bService=0")) << run.log;
    EXPECT_EQ(1u, run.Count("|Resource library ")) << run.log;

    run = agent.Run(L"-Settings");
    EXPECT_EQ(0u, run.dwExitCode) << run.log;
    EXPECT_TRUE(run.Has(" bService=1")) << run.log;
    EXPECT_EQ(2u, run.Count("|Resource library ")) << run.log;

    // Under Wine the input desktop is this one, unlocked.
    run = agent.Run(L"-ConsoleLock");
    EXPECT_EQ(Code(KV_EXIT_CONSOLE_USABLE), run.dwExitCode) << run.log;
    EXPECT_EQ(1u, run.CountMessage("INFO", "KVNXST", "Running -ConsoleLock")) << run.log;
}

TEST(AgentCommandLine, AnythingElseIsTheTrayAgent)
{
    AgentFolder agent;
    ASSERT_TRUE(agent.Ready());
    for (const wchar_t* szCmdLine :
         {L"-Settings extra", L"-Logoffx", L"-logoff", L"-CONSOLELOCK", L"-permission 1 2"})
    {
        const AgentRun run = agent.RunOnOwnDesktop(szCmdLine);
        EXPECT_EQ(Code(KV_EXIT_NO_TRAY_WINDOW), run.dwExitCode) << Narrow(szCmdLine) << "\n" << run.log;
        EXPECT_EQ(1u, run.CountMessage("ERROR", "KVNXST", kNoTrayWindow)) << run.log;
        EXPECT_FALSE(run.Has("|Running ")) << run.log;
        EXPECT_FALSE(run.Has("bService=")) << run.log;
        EXPECT_FALSE(run.Has("bForce=")) << run.log;
    }
}

TEST(AgentCommandLine, OneTimeSessionNeedsAPort)
{
    AgentFolder agent;
    ASSERT_TRUE(agent.Ready());

    AgentRun run = agent.Run(L"-onetimesession");
    EXPECT_EQ(1u, run.dwExitCode) << run.log;
    EXPECT_EQ(1u, run.CountMessage("ERROR", "KVNXST", kOneTimeNoBlank)) << run.log;
    EXPECT_FALSE(run.Has("SessionID is")) << run.log;

    for (const wchar_t* szCmdLine : {L"-onetimesession 0", L"-onetimesession abc", L"-onetimesession 0x10",
                                     L"-onetimesession \xFF16\xFF12\xFF10\xFF10", L"-onetimesession "})
    {
        run = agent.Run(szCmdLine);
        EXPECT_EQ(1u, run.dwExitCode) << Narrow(szCmdLine) << "\n" << run.log;
        EXPECT_EQ(1u, run.CountMessage("ERROR", "KVNXST", kOneTimeNotANumber)) << run.log;
        EXPECT_FALSE(run.Has("SessionID is")) << run.log;
    }
}

TEST(AgentCommandLine, OneTimeSessionSkipsTheInstanceCheck)
{
    AgentFolder agent;
    ASSERT_TRUE(agent.Ready());
    TestDesktop desktop;
    ASSERT_NE(nullptr, desktop.Handle());
    const std::wstring startupName = desktop.StartupName();
    // Another agent already holds this desktop.
    HANDLE hOther = CreateFileMappingW(INVALID_HANDLE_VALUE, nullptr, PAGE_READONLY, 0, 4,
                                       KvInstanceObjectName(desktop.Name().c_str()).c_str());
    ASSERT_NE(nullptr, hOther);

    AgentRun run = agent.Run(L"-onetimesession 6200", &startupName);
    EXPECT_EQ(Code(KV_EXIT_NO_TRAY_WINDOW), run.dwExitCode) << run.log;
    EXPECT_EQ(1u, run.CountMessage("INFO", "KVNXST", "Starting one-time KVNXSt on port: 6200")) << run.log;
    EXPECT_TRUE(run.Has("|uiPort=6200")) << run.log;
    EXPECT_FALSE(run.Has("CheckInstance")) << run.log;
    EXPECT_FALSE(run.Has("GetServicePort")) << run.log;

    run = agent.Run(L"6200", &startupName);
    EXPECT_EQ(Code(KV_EXIT_ALREADY_RUNNING), run.dwExitCode) << run.log;
    CloseHandle(hOther);
}

TEST(AgentCommandLine, OneAgentPerDesktopNotPerSession)
{
    AgentFolder agent;
    ASSERT_TRUE(agent.Ready());
    TestDesktop first;
    TestDesktop second;
    ASSERT_NE(nullptr, first.Handle());
    ASSERT_NE(nullptr, second.Handle());
    const std::wstring firstName = first.StartupName();
    const std::wstring secondName = second.StartupName();

    // The first agent on "first" holds its desktop through the agent's own check.
    std::thread(
        [&]
        {
            ASSERT_TRUE(first.SetOnThisThread());
            ASSERT_EQ(1, CheckInstance());
        })
        .join();
    ASSERT_NE(nullptr, g_hInstanceMapping);

    AgentRun run = agent.Run(L"5000", &firstName);
    EXPECT_EQ(Code(KV_EXIT_ALREADY_RUNNING), run.dwExitCode) << run.log;
    EXPECT_TRUE(run.Has("|Another KVNXST already runs on desktop " + Narrow(first.Name()))) << run.log;
    EXPECT_FALSE(run.Has("|uiPort=5000")) << run.log;

    run = agent.Run(L"5000", &secondName);
    EXPECT_EQ(Code(KV_EXIT_NO_TRAY_WINDOW), run.dwExitCode) << run.log;
    EXPECT_TRUE(run.Has("|uiPort=")) << run.log;

    // Once the first agent has gone, its desktop takes a new one.
    CloseInstanceMapping();
    run = agent.Run(L"5000", &firstName);
    EXPECT_EQ(Code(KV_EXIT_NO_TRAY_WINDOW), run.dwExitCode) << run.log;
}

TEST(AgentCommandLine, PortFromTheLineTheServiceOrTheDefault)
{
    AgentFolder agent;
    ASSERT_TRUE(agent.Ready());
    ServicePortValue port;
    ASSERT_TRUE(port.Opened());

    port.Remove();
    AgentRun run = agent.RunOnOwnDesktop(L"5000");
    EXPECT_EQ(Code(KV_EXIT_NO_TRAY_WINDOW), run.dwExitCode) << run.log;
    EXPECT_TRUE(run.Has("|uiPort=5000")) << run.log;
    run = agent.RunOnOwnDesktop(L"");
    EXPECT_TRUE(run.Has("|uiPort=6129")) << run.log;

    ASSERT_TRUE(port.SetDword(7000));
    run = agent.RunOnOwnDesktop(L"5000");
    EXPECT_TRUE(run.Has("|uiPort=7000")) << run.log;
    run = agent.RunOnOwnDesktop(L"");
    EXPECT_TRUE(run.Has("|uiPort=7000")) << run.log;
    run = agent.RunOnOwnDesktop(L"-onetimesession 6200");
    EXPECT_TRUE(run.Has("|uiPort=6200")) << run.log;

    const wchar_t sz7000[] = L"7000";
    ASSERT_TRUE(port.Set(REG_SZ, sz7000, sizeof sz7000));
    run = agent.RunOnOwnDesktop(L"5000");
    EXPECT_TRUE(run.Has("|uiPort=5000")) << run.log;
    EXPECT_EQ(1u, run.Count("WARN|UtilService|")) << run.log;
}

TEST(AgentCommandLine, BadInputEndsInTheDocumentedModeLogged)
{
    AgentFolder agent;
    ASSERT_TRUE(agent.Ready());
    ServicePortValue port;
    ASSERT_TRUE(port.Opened());
    port.Remove();

    struct Case
    {
        std::wstring cmdLine;
        std::string portLine;
    };
    const Case cases[] = {
        {std::wstring(32000, L'x'), "uiPort=0 is not a TCP port"},
        {std::wstring(32000, L'9'), "uiPort=2147483647 is not a TCP port"},
        {L"99999999999", "uiPort=2147483647 is not a TCP port"},
        {L"-5", "uiPort=4294967291 is not a TCP port"},
        {L"0x10", "uiPort=0 is not a TCP port"},
        {L"\xFF15\xFF10\xFF10\xFF10", "uiPort=0 is not a TCP port"},
        {L"-Logoffx", "uiPort=0 is not a TCP port"},
        {L"-onetimesession 99999999999", "uiPort=4294967295 is not a TCP port"},
        {L"-onetimesession -5", "uiPort=4294967291 is not a TCP port"},
    };
    for (const Case& c : cases)
    {
        const std::string shown = Narrow(c.cmdLine.substr(0, 40));
        const AgentRun run = agent.RunOnOwnDesktop(c.cmdLine);
        ASSERT_TRUE(run.bStarted) << shown;
        EXPECT_EQ(Code(KV_EXIT_NO_TRAY_WINDOW), run.dwExitCode) << shown << "\n" << run.log.substr(0, 4000);
        EXPECT_EQ(1u, run.CountMessage("WARN", "KVNXST", c.portLine)) << shown << "\n"
                                                                      << run.log.substr(0, 4000);
        EXPECT_EQ(1u, run.Count("|lpCmdLine=" + Narrow(c.cmdLine))) << shown;
        EXPECT_TRUE(run.Has("|wWinMain exiting.")) << shown;
    }
}

TEST(AgentCommandLine, AgentKnowsItsDesktopAndSession)
{
    AgentFolder agent;
    ASSERT_TRUE(agent.Ready());
    TestDesktop desktop;
    const std::wstring startupName = desktop.StartupName();
    const AgentRun run = agent.Run(L"-onetimesession 6200", &startupName);
    EXPECT_TRUE(run.Has("|g_szDesktopName=" + Narrow(desktop.Name()) + " g_szUserName=")) << run.log;
    EXPECT_TRUE(run.Has("|SessionID is 1")) << run.log;
    EXPECT_NE(ThisDesktopName(), Narrow(desktop.Name()));
}

TEST(AgentCommandLine, ResourceLibraryFollowsTheStoredLanguage)
{
    AgentFolder agent;
    ASSERT_TRUE(agent.Ready());
    ASSERT_TRUE(CreateDirectoryW((agent.Path() + L"Localization").c_str(), nullptr));
    ASSERT_TRUE(CreateDirectoryW((agent.Path() + L"Localization\\fr").c_str(), nullptr));
    ASSERT_TRUE(CopyFileW((ModuleFolder() + L"KVNXSTRES.dll").c_str(),
                          (agent.Path() + L"Localization\\fr\\KVNXSTRES.dll").c_str(), FALSE));
    const std::string french =
        "|Resource library " + Narrow(agent.Path()) + "Localization\\fr\\KVNXSTRES.dll";
    const std::string english = "|Resource library " + Narrow(agent.Path()) + "KVNXSTRES.dll";
    LanguageValue language;
    ASSERT_TRUE(language.Opened());

    ASSERT_TRUE(language.SetText(L"fr"));
    AgentRun run = agent.Run(L"-onetimesession 6200");
    EXPECT_EQ(1u, run.Count(french)) << run.log;
    EXPECT_EQ(0u, run.Count(english)) << run.log;
    // "-Settings" loads it again through the same store.
    run = agent.Run(L"-Settings");
    EXPECT_EQ(2u, run.Count(french)) << run.log;

    ASSERT_TRUE(language.SetText(L"de"));
    run = agent.Run(L"-onetimesession 6200");
    EXPECT_EQ(1u, run.Count(english)) << run.log;

    language.Remove();
    run = agent.Run(L"-onetimesession 6200");
    EXPECT_EQ(1u, run.Count(english)) << run.log;
}
