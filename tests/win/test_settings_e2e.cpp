// The agent's two settings modes, run as the built exe beside the stand-in settings library.
#include "test_logging_support.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace
{

using kvtest::ModuleFolder;

// The agent, its resource library and the stand-in KVNXSET.DLL in a folder of their own; the
// stand-in records its calls in a file there.
class SettingsAgent
{
public:
    SettingsAgent() : m_exe(m_folder.Path() + L"KVNXST.exe"), m_record(m_folder.Path() + L"record.txt")
    {
        m_bReady = Copy(L"KVNXST.exe", L"KVNXST.exe") && Copy(L"KVNXSTRES.dll", L"KVNXSTRES.dll") &&
                   Copy(L"fake-settings\\KVNXSET.DLL", L"KVNXSET.DLL");
        SetEnvironmentVariableW(L"KVNXST_TEST_RECORD", m_record.c_str());
    }
    ~SettingsAgent()
    {
        SetEnvironmentVariableW(L"KVNXST_TEST_RECORD", nullptr);
        SetEnvironmentVariableW(L"KVNXST_TEST_SETTINGS_RESULT", nullptr);
    }

    bool Ready() const { return m_bReady; }

    // The exit code as the process reports it; 999 for a run that hangs.
    DWORD Run(const std::wstring& arguments)
    {
        DeleteFileW(m_record.c_str());
        std::wstring commandLine = L"\"" + m_exe + L"\" " + arguments;
        STARTUPINFOW si = {};
        si.cb = sizeof si;
        PROCESS_INFORMATION pi = {};
        if (!CreateProcessW(m_exe.c_str(), &commandLine[0], nullptr, nullptr, FALSE, 0, nullptr,
                            m_folder.Path().c_str(), &si, &pi))
            return 0xDEADBEEF;
        if (WaitForSingleObject(pi.hProcess, 60000) != WAIT_OBJECT_0)
            TerminateProcess(pi.hProcess, 999);
        DWORD dwExitCode = 0;
        GetExitCodeProcess(pi.hProcess, &dwExitCode);
        CloseHandle(pi.hThread);
        CloseHandle(pi.hProcess);
        return dwExitCode;
    }

    std::vector<std::string> Record() const { return kvtest::Lines(kvtest::ReadTextFile(m_record)); }

private:
    bool Copy(const wchar_t* from, const wchar_t* to)
    {
        return CopyFileW((ModuleFolder() + from).c_str(), (m_folder.Path() + to).c_str(), FALSE) != FALSE;
    }

    kvtest::TempFolder m_folder;
    std::wstring m_exe;
    std::wstring m_record;
    bool m_bReady = false;
};

TEST(AgentSettingsModes, SettingsAsApplicationSwitchesTheLibraryToApplicationMode)
{
    SettingsAgent agent;
    ASSERT_TRUE(agent.Ready());
    EXPECT_EQ(1u, agent.Run(L"-SettingsAsApplication"));
    EXPECT_EQ((std::vector<std::string>{"SetApplicationMode", "SettingsDialog owner=0"}), agent.Record());
}

TEST(AgentSettingsModes, SettingsEditsTheInstalledServiceAndReportsTheDialogsAnswer)
{
    SettingsAgent agent;
    ASSERT_TRUE(agent.Ready());
    // Wine runs as an administrator: the write-access probe passes and nothing is asked first.
    EXPECT_EQ(1u, agent.Run(L"-Settings"));
    EXPECT_EQ((std::vector<std::string>{"SettingsDialog owner=0"}), agent.Record());

    SetEnvironmentVariableW(L"KVNXST_TEST_SETTINGS_RESULT", L"0");
    EXPECT_EQ(0u, agent.Run(L"-Settings"));
    EXPECT_EQ(0u, agent.Run(L"-SettingsAsApplication"));
    EXPECT_EQ((std::vector<std::string>{"SetApplicationMode", "SettingsDialog owner=0"}), agent.Record());
}

} // namespace
