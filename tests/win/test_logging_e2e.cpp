// The built agent configures its logging from the folder it runs in.
#include "test_logging_support.h"

#include <algorithm>

using namespace kvtest;

namespace
{

struct RunResult
{
    DWORD dwExitCode = 0xDEADBEEF;
    std::string main; // "|main@<id of the process's first thread>|"
};

// Runs a copy of the built KVNXST.exe in folder (so the shipped configuration beside the original
// stays untouched) with the given configuration and, when temp is set, TEMP and TMP pointing there.
// A one-time agent skips the single-instance check and ends where the tray window would be made.
RunResult RunAgentCopy(const TempFolder& folder, const std::string& config, const std::wstring& arguments,
                       const std::wstring& temp = std::wstring())
{
    RunResult result;
    const std::wstring exe = folder.Path() + L"KVNXST.exe";
    EXPECT_TRUE(CopyFileW((ModuleFolder() + L"KVNXST.exe").c_str(), exe.c_str(), FALSE));
    WriteTextFile(folder.Path() + L"KVNXST.Logging.xml", config);
    std::wstring environment;
    wchar_t* env = GetEnvironmentStringsW();
    for (const wchar_t* p = env; *p != L'\0'; p += wcslen(p) + 1)
        if (_wcsnicmp(p, L"TEMP=", 5) != 0 && _wcsnicmp(p, L"TMP=", 4) != 0)
            environment += std::wstring(p) + L'\0';
    FreeEnvironmentStringsW(env);
    environment += L"TEMP=" + temp + L'\0' + L"TMP=" + temp + L'\0';

    std::wstring commandLine = L"\"" + exe + L"\" " + arguments;
    STARTUPINFOW si = {};
    si.cb = sizeof si;
    PROCESS_INFORMATION pi = {};
    if (!CreateProcessW(exe.c_str(), commandLine.data(), nullptr, nullptr, FALSE, CREATE_UNICODE_ENVIRONMENT,
                        temp.empty() ? nullptr : environment.data(), folder.Path().c_str(), &si, &pi))
        return result;
    result.main = "|main@" + std::to_string(pi.dwThreadId) + "|";
    if (WaitForSingleObject(pi.hProcess, 60000) != WAIT_OBJECT_0)
        TerminateProcess(pi.hProcess, 999);
    GetExitCodeProcess(pi.hProcess, &result.dwExitCode);
    CloseHandle(pi.hThread);
    CloseHandle(pi.hProcess);
    return result;
}

} // namespace

TEST(AgentLogging, TraceConfigurationBesideTheAgentShowsItsStart)
{
    TempFolder folder;
    const std::wstring log = folder.Path() + L"agent.log";
    const RunResult run = RunAgentCopy(folder, LogConfigXml(log, "TRACE"), L"-onetimesession 6200");
    EXPECT_EQ(static_cast<DWORD>(-14), run.dwExitCode);

    // In this order, on the main thread, at places in the agent's source.
    const std::vector<std::string> lines = Lines(ReadTextFile(log));
    const std::pair<const char*, const char*> expected[] = {{"TRACE", "wWinMain entering."},
                                                            {"INFO", "lpCmdLine=-onetimesession 6200"},
                                                            {"TRACE", "wWinMain exiting."}};
    auto at = lines.begin();
    for (const auto& [level, message] : expected)
    {
        const std::string head = level + ("|KVNXST" + run.main + "KVNXST.cpp:"),
                          tail = std::string("|") + message;
        at = std::find_if(at, lines.end(),
                          [&](const std::string& l) {
                              return l.rfind(head, 0) == 0 && l.find(tail, head.size()) != std::string::npos;
                          });
        EXPECT_NE(lines.end(), at) << head << tail << "\n" << ReadTextFile(log);
    }
}

TEST(AgentLogging, ShippedConfigurationWritesInfoIntoTheUsersTempFolder)
{
    TempFolder folder;
    const std::wstring temp = folder.Path() + L"user temp";
    ASSERT_TRUE(CreateDirectoryW(temp.c_str(), nullptr));
    const RunResult run = RunAgentCopy(folder, ReadTextFile(ModuleFolder() + L"KVNXST.Logging.xml"),
                                       L"-onetimesession 6200 shipped", temp);
    EXPECT_EQ(static_cast<DWORD>(-14), run.dwExitCode);

    const std::string text = ReadTextFile(temp + L"\\KVNXST.log");
    // Date, time, level, logger, thread, location, message; no TRACE.
    const std::string main = "[" + run.main.substr(1, run.main.size() - 2) + "]";
    EXPECT_NE(std::string::npos, text.find(" INFO  KVNXST " + main + " KVNXST.cpp:")) << text;
    EXPECT_NE(std::string::npos, text.find(" - lpCmdLine=-onetimesession 6200 shipped\r\n")) << text;
    EXPECT_EQ(std::string::npos, text.find("entering.")) << text;
}
