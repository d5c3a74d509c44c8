// The built agent configures its logging from the folder it runs in.
#include "test_logging_support.h"

using namespace kvtest;

namespace
{

struct RunResult
{
    bool bStarted = false;
    DWORD dwExitCode = 0;
    DWORD dwMainThreadId = 0;
};

// A copy of the built KVNXST.exe in its own folder, so the shipped configuration beside the
// original stays untouched.
class AgentCopy
{
public:
    explicit AgentCopy(const TempFolder& folder) : m_exe(folder.Path() + L"KVNXST.exe")
    {
        const std::wstring built = ModuleFolder() + L"KVNXST.exe";
        m_bCopied = CopyFileW(built.c_str(), m_exe.c_str(), FALSE) != FALSE;
    }

    bool Copied() const { return m_bCopied; }

    // environment: a CREATE_UNICODE_ENVIRONMENT block, or nullptr for the caller's own.
    RunResult Run(const std::wstring& arguments, const wchar_t* environment = nullptr) const
    {
        RunResult result;
        std::wstring commandLine = L"\"" + m_exe + L"\" " + arguments;
        const std::wstring folder = m_exe.substr(0, m_exe.find_last_of(L'\\') + 1);
        STARTUPINFOW si = {};
        si.cb = sizeof si;
        PROCESS_INFORMATION pi = {};
        if (!CreateProcessW(m_exe.c_str(), &commandLine[0], nullptr, nullptr, FALSE,
                            CREATE_UNICODE_ENVIRONMENT, const_cast<wchar_t*>(environment), folder.c_str(),
                            &si, &pi))
            return result;
        result.bStarted = true;
        result.dwMainThreadId = pi.dwThreadId;
        if (WaitForSingleObject(pi.hProcess, 60000) != WAIT_OBJECT_0)
            TerminateProcess(pi.hProcess, 999);
        GetExitCodeProcess(pi.hProcess, &result.dwExitCode);
        CloseHandle(pi.hThread);
        CloseHandle(pi.hProcess);
        return result;
    }

private:
    std::wstring m_exe;
    bool m_bCopied = false;
};

// The caller's environment with TEMP and TMP pointing at folder.
std::wstring EnvironmentWithTemp(const std::wstring& folder)
{
    std::wstring block;
    wchar_t* env = GetEnvironmentStringsW();
    for (const wchar_t* p = env; *p != L'\0'; p += wcslen(p) + 1)
    {
        const std::wstring entry = p;
        if (_wcsnicmp(p, L"TEMP=", 5) == 0 || _wcsnicmp(p, L"TMP=", 4) == 0)
            continue;
        block += entry;
        block += L'\0';
    }
    FreeEnvironmentStringsW(env);
    const std::wstring temp = folder.substr(0, folder.size() - 1); // no trailing backslash
    block += L"TEMP=" + temp + L'\0';
    block += L"TMP=" + temp + L'\0';
    block += L'\0';
    return block;
}

size_t IndexOf(const std::vector<std::string>& lines, const std::string& part)
{
    for (size_t i = 0; i < lines.size(); ++i)
        if (lines[i].find(part) != std::string::npos)
            return i;
    return lines.size();
}

} // namespace

TEST(AgentLogging, TraceConfigurationBesideTheAgentShowsItsStart)
{
    TempFolder folder;
    AgentCopy agent(folder);
    ASSERT_TRUE(agent.Copied()) << "KVNXST.exe must be built beside the test";
    const std::wstring log = folder.Path() + L"agent.log";
    WriteTextFile(folder.Path() + L"KVNXST.Logging.xml", LogConfigXml(log, "TRACE"));

    // A one-time agent skips the single-instance check, so the run does not depend on other
    // agents; it ends where the tray window would be made.
    const RunResult run = agent.Run(L"-onetimesession 6200");
    ASSERT_TRUE(run.bStarted);
    EXPECT_EQ(static_cast<DWORD>(-14), run.dwExitCode);

    const std::vector<std::string> lines = Lines(ReadTextFile(log));
    const std::string main = "|main@" + std::to_string(run.dwMainThreadId) + "|";
    const size_t entering = IndexOf(lines, "|wWinMain entering.");
    const size_t cmdLine = IndexOf(lines, "|lpCmdLine=-onetimesession 6200");
    const size_t exiting = IndexOf(lines, "|wWinMain exiting.");
    ASSERT_LT(entering, cmdLine) << ReadTextFile(log);
    ASSERT_LT(cmdLine, exiting) << ReadTextFile(log);
    ASSERT_LT(exiting, lines.size()) << ReadTextFile(log);

    EXPECT_EQ(0u, lines[entering].find("TRACE|KVNXST" + main + "KVNXST.cpp:"));
    EXPECT_EQ(0u, lines[cmdLine].find("INFO|KVNXST" + main + "KVNXST.cpp:"));
    EXPECT_EQ(0u, lines[exiting].find("TRACE|KVNXST" + main + "KVNXST.cpp:"));
}

TEST(AgentLogging, ShippedConfigurationWritesInfoIntoTheUsersTempFolder)
{
    TempFolder folder;
    AgentCopy agent(folder);
    ASSERT_TRUE(agent.Copied()) << "KVNXST.exe must be built beside the test";
    ASSERT_TRUE(CopyFileW((ModuleFolder() + L"KVNXST.Logging.xml").c_str(),
                          (folder.Path() + L"KVNXST.Logging.xml").c_str(), FALSE));
    const std::wstring temp = folder.Path() + L"user temp\\";
    ASSERT_TRUE(CreateDirectoryW(temp.c_str(), nullptr));

    const std::wstring environment = EnvironmentWithTemp(temp);
    const RunResult run = agent.Run(L"-onetimesession 6200 shipped", environment.c_str());
    ASSERT_TRUE(run.bStarted);
    EXPECT_EQ(static_cast<DWORD>(-14), run.dwExitCode);

    const std::string text = ReadTextFile(temp + L"KVNXST.log");
    const std::vector<std::string> lines = Lines(text);
    ASSERT_LE(1u, lines.size()) << text;
    // Date, time, level, logger, thread, location, message.
    EXPECT_NE(std::string::npos,
              lines[0].find(" INFO  KVNXST [main@" + std::to_string(run.dwMainThreadId) + "] KVNXST.cpp:"))
        << lines[0];
    EXPECT_NE(std::string::npos, lines[0].find(" - lpCmdLine=-onetimesession 6200 shipped")) << lines[0];
    EXPECT_EQ(0u, CountContaining(lines, "entering."));
}
