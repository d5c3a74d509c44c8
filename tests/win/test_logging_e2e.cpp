// The built agent configures its logging from the folder it runs in.
#include "test_agent_support.h"

#include <regex>

using namespace kvtest;

namespace
{

// Runs a copy of the built KVNXST.exe in folder (so the shipped configuration beside the original
// stays untouched) with the given configuration, and TEMP and TMP at folder's "temp". A one-time
// agent skips the single-instance check; it is closed as soon as its tray window exists.
// Returns "main@<id of the process's first thread>".
std::string RunAgentCopy(const TempFolder& folder, const std::string& config, std::wstring commandLine)
{
    const std::wstring exe = folder.Path() + L"KVNXST.exe", temp = folder.Path() + L"temp";
    EXPECT_TRUE(CopyFileW((ModuleFolder() + L"KVNXST.exe").c_str(), exe.c_str(), FALSE));
    EXPECT_TRUE(CreateDirectoryW(temp.c_str(), nullptr));
    WriteTextFile(folder.Path() + L"KVNXST.Logging.xml", config);
    std::wstring environment;
    wchar_t* env = GetEnvironmentStringsW();
    for (const wchar_t* p = env; *p != L'\0'; p += wcslen(p) + 1)
        if (_wcsnicmp(p, L"TEMP=", 5) != 0 && _wcsnicmp(p, L"TMP=", 4) != 0)
            environment += std::wstring(p) + L'\0';
    FreeEnvironmentStringsW(env);
    environment += L"TEMP=" + temp + L'\0' + L"TMP=" + temp + L'\0';

    STARTUPINFOW si = {};
    si.cb = sizeof si;
    PROCESS_INFORMATION pi = {};
    DWORD dwExitCode = 0;
    if (!CreateProcessW(exe.c_str(), commandLine.data(), nullptr, nullptr, FALSE, CREATE_UNICODE_ENVIRONMENT,
                        environment.data(), folder.Path().c_str(), &si, &pi))
        return "(not started)";
    for (int nWait = 0; nWait < 1200 && WaitForSingleObject(pi.hProcess, 50) == WAIT_TIMEOUT; ++nWait)
        if (HWND hTray = FindTrayWindow(std::wstring(), pi.dwProcessId))
            PostMessageW(hTray, WM_CLOSE, 0, 0);
    if (WaitForSingleObject(pi.hProcess, 0) != WAIT_OBJECT_0)
        TerminateProcess(pi.hProcess, 999);
    EXPECT_TRUE(GetExitCodeProcess(pi.hProcess, &dwExitCode) && dwExitCode == Code(kTrayAgentClosed))
        << dwExitCode;
    CloseHandle(pi.hThread);
    CloseHandle(pi.hProcess);
    return "main@" + std::to_string(pi.dwThreadId);
}

} // namespace

TEST(AgentLogging, TraceConfigurationBesideTheAgentShowsItsStart)
{
    TempFolder folder;
    const std::wstring log = folder.Path() + L"agent.log";
    const std::string main =
        RunAgentCopy(folder, LogConfigXml(log, "TRACE"), L"KVNXST.exe -onetimesession 6200");
    // In this order, on the main thread, at places in the agent's source. Line by line: one pattern
    // over the whole log would recurse through the regex engine once per character.
    const std::string at = "\\|KVNXST\\|" + main + "\\|KVNXST\\.cpp:[0-9]+\\|";
    const std::regex expected[] = {std::regex("TRACE" + at + "wWinMain entering\\."),
                                   std::regex("INFO" + at + "lpCmdLine=-onetimesession 6200"),
                                   std::regex("TRACE" + at + "wWinMain exiting\\.")};
    const std::string text = ReadTextFile(log);
    size_t nFound = 0;
    for (const std::string& line : Lines(text))
        if (nFound < std::size(expected) && std::regex_match(line, expected[nFound]))
            ++nFound;
    EXPECT_EQ(std::size(expected), nFound) << main << "\n" << text;
}

TEST(AgentLogging, ShippedConfigurationWritesInfoIntoTheUsersTempFolder)
{
    TempFolder folder;
    const std::string main = RunAgentCopy(folder, ReadTextFile(ModuleFolder() + L"KVNXST.Logging.xml"),
                                          L"KVNXST.exe -onetimesession 6200 shipped");
    const std::string text = ReadTextFile(folder.Path() + L"temp\\KVNXST.log");
    // Date, time, level, logger, thread, location, message; no TRACE.
    EXPECT_NE(std::string::npos, text.find(" INFO  KVNXST [" + main + "] KVNXST.cpp:")) << text;
    EXPECT_NE(std::string::npos, text.find(" - lpCmdLine=-onetimesession 6200 shipped\r\n")) << text;
    EXPECT_EQ(std::string::npos, text.find("entering.")) << text;
}
