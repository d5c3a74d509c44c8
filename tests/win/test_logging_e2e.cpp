// The built agent configures its logging from the folder it runs in.
#include "test_agent_support.h"

using namespace kvtest;

namespace
{

// Runs the built agent with this configuration, and TEMP and TMP at its folder's "temp", as a
// one-time agent (no single-instance check). Returns "main@<id of the process's first thread>".
std::string RunAgent(const AgentFolder& agent, const std::string& config, const std::wstring& arguments)
{
    const std::wstring temp = agent.Path() + L"temp";
    EXPECT_TRUE(CreateDirectoryW(temp.c_str(), nullptr));
    WriteTextFile(agent.Path() + L"KVNXST.Logging.xml", config);
    std::wstring environment;
    wchar_t* env = GetEnvironmentStringsW();
    for (const wchar_t* p = env; *p != L'\0'; p += wcslen(p) + 1)
        if (_wcsnicmp(p, L"TEMP=", 5) != 0 && _wcsnicmp(p, L"TMP=", 4) != 0)
            environment += std::wstring(p) + L'\0';
    FreeEnvironmentStringsW(env);
    environment += L"TEMP=" + temp + L'\0' + L"TMP=" + temp + L'\0';
    const AgentRun run = agent.Run(arguments, std::wstring(), environment.c_str());
    EXPECT_EQ(Code(kTrayAgentClosed), run.dwExitCode) << run.log;
    return "main@" + std::to_string(run.dwMainThread);
}

} // namespace

TEST(AgentLogging, ShippedConfigurationWritesInfoIntoTheUsersTempFolder)
{
    AgentFolder agent;
    const std::string main = RunAgent(agent, ReadTextFile(ModuleFolder() + L"KVNXST.Logging.xml"),
                                      L"-onetimesession 6200 shipped");
    const std::string text = ReadTextFile(agent.Path() + L"temp\\KVNXST.log");
    // Date, time, level, logger, thread, location, message; no TRACE.
    EXPECT_NE(std::string::npos, text.find(" INFO  KVNXST [" + main + "] KVNXST.cpp:")) << text;
    EXPECT_NE(std::string::npos, text.find(" - lpCmdLine=-onetimesession 6200 shipped\r\n")) << text;
    EXPECT_EQ(std::string::npos, text.find("entering.")) << text;
}
