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

} // namespace

TEST(AgentCommandLine, OneShotOptionsReachTheirModeWithTheirArguments)
{
    AgentFolder agent;
    ASSERT_TRUE(agent.Ready());
    const struct
    {
        const wchar_t* szCmdLine;
        int nExitCode;
        const char* szLogger;
        const char* szMessage; // exact
    } cases[] = {
        {L"-Permission 5000 2", 0, "ClientPermissionDialog", "nPort=5000 nAfType=2"},
        {L"-Invitation 5001 23", 0, "ClientPermissionDialog", "nPort=5001 nAfType=23"},
        // An earlier row wins; its numbers come after the line's first blank, wherever it stands.
        {L"cert -ValidateCert -Permission 5002 2", 0, "ClientPermissionDialog", "nPort=0 nAfType=0"},
        {L"-Permission", 0, "KVNXST", "-Permission needs a port and an address family."},
        {L"C:\\cert.der -ValidateCert now", 1, "KVNXST", "Displaying ValidateCert dialog"},
        // No settings editor beside the agent: both settings modes fail.
        {L"-SettingsAsApplication", 0, "KVNXST", "Running -SettingsAsApplication"},
        {L"-Settings", 0, "KVNXST", "Running -Settings"},
        // Under Wine the input desktop is the test's own, unlocked.
        {L"-ConsoleLock", KV_EXIT_CONSOLE_USABLE, "KVNXST", "Running -ConsoleLock"},
    };
    for (const auto& c : cases)
    {
        const AgentRun run = agent.Run(c.szCmdLine);
        EXPECT_EQ(Code(c.nExitCode), run.dwExitCode) << Narrow(c.szCmdLine) << "\n" << run.log;
        EXPECT_EQ(1u, run.CountMessage("INFO", c.szLogger, c.szMessage) +
                          run.CountMessage("WARN", c.szLogger, c.szMessage))
            << run.log;
        EXPECT_EQ(0u, run.Count("|uiPort=")) << run.log;
        // "-Settings" alone reloads the resource library before the editor.
        const std::wstring line(c.szCmdLine);
        if (line == L"-Settings" || line == L"-SettingsAsApplication")
        {
            const bool bService = line == L"-Settings";
            EXPECT_EQ(1u, run.Count(bService ? " bService=1" : " bService=0")) << run.log;
            EXPECT_EQ(bService ? 2u : 1u, run.Count("|Resource library ")) << run.log;
        }
    }
}

TEST(AgentCommandLine, AnythingElseIsTheTrayAgentEvenBadInput)
{
    AgentFolder agent;
    ASSERT_TRUE(agent.Ready());
    SavedSetting port(HKEY_LOCAL_MACHINE, L"Port");
    ASSERT_TRUE(port.Opened());
    port.Remove();
    const struct
    {
        std::wstring cmdLine;
        const char* szPortWarning;
    } cases[] = {
        {L"-Settings extra", "uiPort=0 is not a TCP port"},
        {L"-Logoffx", "uiPort=0 is not a TCP port"},
        {L"-logoff", "uiPort=0 is not a TCP port"},
        {std::wstring(32000, L'x'), "uiPort=0 is not a TCP port"},
        {L"99999999999", "uiPort=2147483647 is not a TCP port"},
        {L"-5", "uiPort=4294967291 is not a TCP port"},
        {L"0x10", "uiPort=0 is not a TCP port"},
        {L"\xFF15\xFF10\xFF10\xFF10", "uiPort=0 is not a TCP port"},
        {L"-onetimesession 99999999999", "uiPort=4294967295 is not a TCP port"},
    };
    for (const auto& c : cases)
    {
        const std::string shown = Narrow(c.cmdLine.substr(0, 30));
        const AgentRun run = agent.RunAlone(c.cmdLine);
        EXPECT_EQ(Code(KV_EXIT_NO_TRAY_WINDOW), run.dwExitCode) << shown << "\n" << run.log.substr(0, 3000);
        EXPECT_EQ(1u, run.CountMessage("ERROR", "KVNXST", kNoTrayWindow)) << shown;
        EXPECT_EQ(1u, run.CountMessage("WARN", "KVNXST", c.szPortWarning)) << shown;
        EXPECT_EQ(1u, run.Count("|lpCmdLine=" + Narrow(c.cmdLine))) << shown;
        EXPECT_EQ(0u, run.Count("|Running ")) << shown;
    }
}

TEST(AgentCommandLine, OneTimeSessionNeedsAPortAndSkipsTheInstanceCheck)
{
    AgentFolder agent;
    ASSERT_TRUE(agent.Ready());
    AgentRun run = agent.Run(L"-onetimesession");
    EXPECT_EQ(1u, run.dwExitCode) << run.log;
    EXPECT_EQ(1u,
              run.CountMessage("ERROR", "KVNXST", "-onetimesession needs to followed by port parameter."));
    for (const wchar_t* szCmdLine : {L"-onetimesession 0", L"-onetimesession abc", L"-onetimesession 0x10",
                                     L"-onetimesession \xFF16\xFF12\xFF10\xFF10"})
    {
        run = agent.Run(szCmdLine);
        EXPECT_EQ(1u, run.dwExitCode) << Narrow(szCmdLine) << "\n" << run.log;
        EXPECT_EQ(1u,
                  run.CountMessage("ERROR", "KVNXST", "Error converting one-time KVNXST port parameter."));
        EXPECT_EQ(0u, run.Count("SessionID is")) << run.log;
    }

    // Another agent already holds the desktop: a one-time agent runs all the same, an ordinary one not.
    TestDesktop desktop;
    HANDLE hOther = CreateFileMappingW(INVALID_HANDLE_VALUE, nullptr, PAGE_READONLY, 0, 4,
                                       KvInstanceObjectName(desktop.Name().c_str()).c_str());
    ASSERT_NE(nullptr, hOther);
    run = agent.Run(L"-onetimesession 6200", desktop.Name());
    EXPECT_EQ(Code(KV_EXIT_NO_TRAY_WINDOW), run.dwExitCode) << run.log;
    EXPECT_EQ(1u, run.CountMessage("INFO", "KVNXST", "Starting one-time KVNXSt on port: 6200")) << run.log;
    EXPECT_EQ(0u, run.Count("CheckInstance")) << run.log;
    run = agent.Run(L"6200", desktop.Name());
    EXPECT_EQ(Code(KV_EXIT_ALREADY_RUNNING), run.dwExitCode) << run.log;
    CloseHandle(hOther);
}

TEST(AgentCommandLine, OneAgentPerDesktopNotPerSession)
{
    AgentFolder agent;
    ASSERT_TRUE(agent.Ready());
    TestDesktop first;
    TestDesktop second;

    // The first agent on "first" holds it through the agent's own check, in this process.
    std::thread([&] { ASSERT_TRUE(first.SetOnThisThread() && CheckInstance() == 1); }).join();
    ASSERT_NE(nullptr, g_hInstanceMapping);

    AgentRun run = agent.Run(L"5000", first.Name());
    EXPECT_EQ(Code(KV_EXIT_ALREADY_RUNNING), run.dwExitCode) << run.log;
    EXPECT_EQ(1u, run.Count("|Another KVNXST already runs on desktop " + Narrow(first.Name()))) << run.log;
    run = agent.Run(L"5000", second.Name());
    EXPECT_EQ(Code(KV_EXIT_NO_TRAY_WINDOW), run.dwExitCode) << run.log;

    CloseInstanceMapping();
    run = agent.Run(L"5000", first.Name());
    EXPECT_EQ(Code(KV_EXIT_NO_TRAY_WINDOW), run.dwExitCode) << run.log;
}

TEST(AgentCommandLine, PortFromTheServiceSettingElseTheLineElseTheDefault)
{
    AgentFolder agent;
    ASSERT_TRUE(agent.Ready());
    SavedSetting port(HKEY_LOCAL_MACHINE, L"Port");
    ASSERT_TRUE(port.Opened());

    port.Remove();
    EXPECT_EQ(1u, agent.RunAlone(L"5000").Count("|uiPort=5000"));
    EXPECT_EQ(1u, agent.RunAlone(L"").Count("|uiPort=6129"));
    ASSERT_TRUE(port.SetDword(7000));
    EXPECT_EQ(1u, agent.RunAlone(L"5000").Count("|uiPort=7000"));
    EXPECT_EQ(1u, agent.RunAlone(L"").Count("|uiPort=7000"));
    EXPECT_EQ(1u, agent.RunAlone(L"-onetimesession 6200").Count("|uiPort=6200"));
    ASSERT_TRUE(port.SetText(L"7000"));
    EXPECT_EQ(1u, agent.RunAlone(L"5000").Count("|uiPort=5000"));
}

TEST(AgentCommandLine, ResourceLibraryFollowsTheStoredLanguage)
{
    AgentFolder agent;
    ASSERT_TRUE(agent.Ready());
    const std::wstring res = ModuleFolder() + L"KVNXSTRES.dll";
    for (const wchar_t* szFolder : {L"Localization", L"Localization\\fr", L"fr"})
        ASSERT_TRUE(CreateDirectoryW((agent.Path() + szFolder).c_str(), nullptr));
    ASSERT_TRUE(CopyFileW(res.c_str(), (agent.Path() + L"Localization\\fr\\KVNXSTRES.dll").c_str(), FALSE));
    ASSERT_TRUE(CopyFileW(res.c_str(), (agent.Path() + L"fr\\KVNXSTRES.dll").c_str(), FALSE));
    const std::string loaded = "|Resource library " + Narrow(agent.Path());
    SavedSetting language(HKEY_CURRENT_USER, L"LangUI");
    ASSERT_TRUE(language.Opened());

    ASSERT_TRUE(language.SetText(L"fr"));
    EXPECT_EQ(1u, agent.Run(L"-onetimesession 6200").Count(loaded + "Localization\\fr\\KVNXSTRES.dll"));
    EXPECT_EQ(2u, agent.Run(L"-Settings").Count(loaded + "Localization\\fr\\KVNXSTRES.dll"));
    // No such translation, or a code that would leave the folder: the English library beside the agent.
    for (const wchar_t* szCode : {L"de", L"..\\fr"})
    {
        ASSERT_TRUE(language.SetText(szCode));
        const AgentRun run = agent.Run(L"-onetimesession 6200");
        EXPECT_EQ(1u, run.Count(loaded + "KVNXSTRES.dll")) << run.log;
        EXPECT_EQ(1u, run.Count("|Resource library ")) << run.log;
    }
    // No library at all: the agent's own module serves, and it runs on.
    language.Remove();
    ASSERT_TRUE(DeleteFileW((agent.Path() + L"KVNXSTRES.dll").c_str()));
    const AgentRun run = agent.Run(L"-onetimesession 6200");
    EXPECT_EQ(1u, run.CountMessage("INFO", "KVNXST", "No resource library; the agent's own resources apply"));
    EXPECT_EQ(Code(KV_EXIT_NO_TRAY_WINDOW), run.dwExitCode);
}
