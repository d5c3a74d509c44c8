// The built agent started as a process: which mode a command line reaches, with which numbers,
// and the exact exit codes, read inside Wine with GetExitCodeProcess. The parsing itself is the
// host test's, the session actions' the in-process one's (test_startup.cpp); one line per mode here
// proves the wiring.
#include "test_agent_support.h"

#include "KVNXST.h"

#include <gtest/gtest.h>

#include <thread>

using namespace kvtest;

TEST(AgentCommandLine, EachLineReachesItsModeWithItsNumbersAndTheTrayAgentItsPort)
{
    AgentFolder agent;
    ASSERT_TRUE(agent.Ready());
    ScopedSetting port(HKEY_LOCAL_MACHINE, L"Port");
    ASSERT_TRUE(port.Opened());
    const unsigned long long k7000 = 7000; // the first four bytes are a DWORD 7000
    const struct
    {
        const wchar_t* szCmdLine;
        DWORD dwPortType; // REG_NONE: no "Port" value
        DWORD cbPort;
        int nExitCode;
        const char* szLevel;
        const char* szLogger;
        const char* szMessage; // exact
    } cases[] = {
        // clang-format off
        {L"-Permission 5000 2", REG_NONE, 0, 0, "INFO", "ClientPermissionDialog", "nPort=5000 nAfType=2"},
        // An earlier row wins; its numbers come after the line's first blank, wherever it stands.
        {L"cert -ValidateCert -Permission 5002 2", REG_NONE, 0, 0, "INFO", "ClientPermissionDialog",
         "nPort=0 nAfType=0"},
        {L"-Permission", REG_NONE, 0, 0, "WARN", "KVNXST", "-Permission needs a port and an address family."},
        {L"-onetimesession", REG_NONE, 0, 1, "ERROR", "KVNXST",
         "-onetimesession needs to followed by port parameter."},
        {L"-onetimesession 0x10", REG_NONE, 0, 1, "ERROR", "KVNXST",
         "Error converting one-time KVNXST port parameter."},
        // Anything else is the tray agent (closed by the test), on the service's port, else the line's,
        // else the default; the service's value counts only as a four-byte DWORD.
        {L"5000", REG_NONE, 0, kTrayAgentClosed, "INFO", "KVNXSTWindow", "uiPort=5000"},
        {L"", REG_NONE, 0, kTrayAgentClosed, "INFO", "KVNXSTWindow", "uiPort=6129"},
        {L"5000", REG_DWORD, 4, kTrayAgentClosed, "INFO", "KVNXSTWindow", "uiPort=7000"},
        {L"-onetimesession 6200", REG_DWORD, 4, kTrayAgentClosed, "INFO", "KVNXSTWindow", "uiPort=6200"},
        {L"5000", REG_DWORD, 2, kTrayAgentClosed, "INFO", "KVNXSTWindow", "uiPort=5000"},
        {L"5000", REG_QWORD, 8, kTrayAgentClosed, "INFO", "KVNXSTWindow", "uiPort=5000"},
        {L"5000", REG_DWORD_BIG_ENDIAN, 4, kTrayAgentClosed, "INFO", "KVNXSTWindow", "uiPort=5000"},
        // Bad input (the host test has the rest): still the tray agent, on a port it warns about.
        {L"-Logoffx", REG_NONE, 0, kTrayAgentClosed, "WARN", "KVNXST", "uiPort=0 is not a TCP port"},
        // clang-format on
    };
    // One desktop for all: each agent has ended before the next starts, and Wine starts a shell for
    // every new desktop.
    TestDesktop desktop;
    ASSERT_TRUE(desktop.Created());
    for (const auto& c : cases)
    {
        port.Remove();
        ASSERT_TRUE(c.dwPortType == REG_NONE || port.Set(c.dwPortType, &k7000, c.cbPort));
        const AgentRun run = agent.Run(c.szCmdLine, desktop.Name());
        const std::string shown = Narrow(c.szCmdLine) + "\n" + run.log.substr(0, 3000);
        EXPECT_EQ(Code(c.nExitCode), run.dwExitCode) << shown;
        EXPECT_EQ(1u, CountMessage(run.lines, c.szLevel, c.szLogger, c.szMessage)) << shown;
    }
}

TEST(AgentCommandLine, OneAgentPerDesktopNotPerSessionWhileOneTimeAgentsSkipTheCheck)
{
    AgentFolder agent;
    ASSERT_TRUE(agent.Ready());
    TestDesktop first;
    TestDesktop second;
    // This process holds "first" through the agent's own check.
    std::thread([&] { ASSERT_TRUE(first.SetOnThisThread() && CheckInstance() == 1); }).join();
    ASSERT_NE(nullptr, g_hInstanceMapping);

    AgentRun run = agent.Run(L"5000", first.Name());
    EXPECT_EQ(Code(KV_EXIT_ALREADY_RUNNING), run.dwExitCode) << run.log;
    EXPECT_EQ(1u, CountMessage(run.lines, "WARN", "KVNXST",
                               "Another KVNXST already runs on desktop " + Narrow(first.Name())));
    run = agent.Run(L"-onetimesession 6200", first.Name());
    EXPECT_EQ(Code(kTrayAgentClosed), run.dwExitCode) << run.log;
    EXPECT_EQ(1u, CountMessage(run.lines, "INFO", "KVNXST", "Starting one-time KVNXSt on port: 6200"))
        << run.log;
    EXPECT_EQ(0u, run.Count("CheckInstance")) << run.log;
    EXPECT_EQ(Code(kTrayAgentClosed), agent.Run(L"5000", second.Name()).dwExitCode);

    CloseInstanceMapping();
    EXPECT_EQ(Code(kTrayAgentClosed), agent.Run(L"5000", first.Name()).dwExitCode);
}

TEST(AgentCommandLine, ResourceLibraryFollowsTheStoredLanguage)
{
    AgentFolder agent;
    ASSERT_TRUE(agent.Ready());
    for (const wchar_t* szFolder : {L"Localization", L"Localization\\fr", L"fr"})
        ASSERT_TRUE(CreateDirectoryW((agent.Path() + szFolder).c_str(), nullptr));
    ASSERT_TRUE(agent.Add(L"KVNXSTRES.dll", L"Localization\\fr\\KVNXSTRES.dll"));
    ASSERT_TRUE(agent.Add(L"KVNXSTRES.dll", L"fr\\KVNXSTRES.dll"));
    const std::string loaded = "|Resource library " + Narrow(agent.Path());
    ScopedSetting language(HKEY_CURRENT_USER, L"LangUI");
    ASSERT_TRUE(language.Opened());

    ASSERT_TRUE(language.SetText(L"fr"));
    EXPECT_EQ(1u, agent.Run(L"-onetimesession 6200").Count(loaded + "Localization\\fr\\KVNXSTRES.dll"));
    // "-Settings" loads it again before the editor.
    EXPECT_EQ(2u, agent.Run(L"-Settings").Count(loaded + "Localization\\fr\\KVNXSTRES.dll"));
    // No such translation, a code that would leave the folder, one of 300 letters, a number: the
    // English library beside the agent.
    const DWORD dwNumber = 0x6672;
    for (const std::wstring& code :
         {std::wstring(L"xx"), std::wstring(L"..\\fr"), std::wstring(300, L'f'), std::wstring()})
    {
        ASSERT_TRUE(code.empty() ? language.Set(REG_DWORD, &dwNumber, 4) : language.SetText(code.c_str()));
        const AgentRun run = agent.Run(L"-onetimesession 6200");
        EXPECT_EQ(1u, run.Count(loaded + "KVNXSTRES.dll")) << run.log;
        EXPECT_EQ(1u, run.Count("|Resource library ")) << run.log;
    }
    // No library at all: the agent's own module serves, and it runs on.
    language.Remove();
    ASSERT_TRUE(DeleteFileW((agent.Path() + L"KVNXSTRES.dll").c_str()));
    const AgentRun run = agent.Run(L"-onetimesession 6200");
    EXPECT_EQ(1u, CountMessage(run.lines, "INFO", "KVNXST",
                               "No resource library; the agent's own resources apply"));
    EXPECT_EQ(Code(kTrayAgentClosed), run.dwExitCode);
}

// A translation that is no library, or one that lacks texts (the agent's own module): English.
TEST(AgentCommandLine, ABrokenOrIncompleteTranslationLeavesTheEnglishLibrary)
{
    AgentFolder agent;
    ASSERT_TRUE(agent.Ready());
    for (const wchar_t* szFolder : {L"Localization", L"Localization\\fr"})
        ASSERT_TRUE(CreateDirectoryW((agent.Path() + szFolder).c_str(), nullptr));
    const std::string loaded = "|Resource library " + Narrow(agent.Path());
    ScopedSetting language(HKEY_CURRENT_USER, L"LangUI");
    ASSERT_TRUE(language.Opened() && language.SetText(L"fr"));
    WriteTextFile(agent.Path() + L"Localization\\fr\\KVNXSTRES.dll", std::string(4096, 'M'));
    AgentRun run = agent.Run(L"-onetimesession 6200");
    EXPECT_EQ(1u, run.Count("|The resource library " + Narrow(agent.Path()) +
                            "Localization\\fr\\KVNXSTRES.dll cannot be loaded. Error = "))
        << run.log;
    EXPECT_EQ(1u, run.Count(loaded + "KVNXSTRES.dll")) << run.log;
    ASSERT_TRUE(agent.Add(L"KVNXST.exe", L"Localization\\fr\\KVNXSTRES.dll"));
    run = agent.Run(L"-onetimesession 6200");
    EXPECT_EQ(1u, run.Count("KVNXSTRES.dll lacks string ")) << run.log;
    EXPECT_EQ(1u, run.Count(loaded + "KVNXSTRES.dll")) << run.log;
}

// The settings modes beside the stand-in settings library, which records its calls in a file named by
// the environment.
TEST(AgentSettingsModes, OnlyTheApplicationModeSwitchesTheLibraryAndBothReportTheDialogsAnswer)
{
    AgentFolder agent;
    ASSERT_TRUE(agent.Ready() && agent.Add(L"fake-settings\\KVNXSET.DLL", L"KVNXSET.DLL"));
    const std::wstring record = agent.Path() + L"record.txt";
    SetEnvironmentVariableW(L"KVNXST_TEST_RECORD", record.c_str());
    const std::vector<std::string> service{"SettingsDialog owner=0"};
    const std::vector<std::string> application{"SetApplicationMode", "SettingsDialog owner=0"};
    const struct
    {
        const wchar_t* szDialogResult; // null: the stand-in's own, 1
        const wchar_t* szCmdLine;
        DWORD dwExitCode;
        const std::vector<std::string>& calls;
    } cases[] = {
        // Wine runs as an administrator: the write-access probe passes and nothing is asked first.
        {nullptr, L"-Settings", 1, service},
        {nullptr, L"-SettingsAsApplication", 1, application},
        {L"0", L"-Settings", 0, service},
        {L"0", L"-SettingsAsApplication", 0, application},
    };
    for (const auto& c : cases)
    {
        DeleteFileW(record.c_str());
        SetEnvironmentVariableW(L"KVNXST_TEST_SETTINGS_RESULT", c.szDialogResult);
        EXPECT_EQ(c.dwExitCode, agent.Run(c.szCmdLine).dwExitCode) << Narrow(c.szCmdLine);
        EXPECT_EQ(c.calls, Lines(ReadTextFile(record))) << Narrow(c.szCmdLine);
    }
    SetEnvironmentVariableW(L"KVNXST_TEST_RECORD", nullptr);
    SetEnvironmentVariableW(L"KVNXST_TEST_SETTINGS_RESULT", nullptr);
}

// The shipped logging configuration writes into the user's TEMP, here the agent folder's "temp".
TEST(AgentLogging, ShippedConfigurationWritesInfoIntoTheUsersTempFolder)
{
    AgentFolder agent;
    const std::wstring temp = agent.Path() + L"temp";
    ASSERT_TRUE(CreateDirectoryW(temp.c_str(), nullptr));
    WriteTextFile(agent.Path() + L"KVNXST.Logging.xml", ReadTextFile(ModuleFolder() + L"KVNXST.Logging.xml"));
    std::wstring environment;
    wchar_t* env = GetEnvironmentStringsW();
    for (const wchar_t* p = env; *p != L'\0'; p += wcslen(p) + 1)
        if (_wcsnicmp(p, L"TEMP=", 5) != 0 && _wcsnicmp(p, L"TMP=", 4) != 0)
            environment += std::wstring(p) + L'\0';
    FreeEnvironmentStringsW(env);
    environment += L"TEMP=" + temp + L'\0' + L"TMP=" + temp + L'\0';
    // A one-time agent: no single-instance check.
    const AgentRun run = agent.Run(L"-onetimesession 6200 shipped", std::wstring(), environment.c_str());
    EXPECT_EQ(Code(kTrayAgentClosed), run.dwExitCode) << run.log;

    const std::string text = ReadTextFile(temp + L"\\KVNXST.log");
    // Date, time, level, logger, thread, location, message; no TRACE.
    const std::string main = "main@" + std::to_string(run.dwMainThread);
    EXPECT_NE(std::string::npos, text.find(" INFO  KVNXST [" + main + "] KVNXST.cpp:")) << text;
    EXPECT_NE(std::string::npos, text.find(" - lpCmdLine=-onetimesession 6200 shipped\r\n")) << text;
    EXPECT_EQ(std::string::npos, text.find("entering.")) << text;
}
