// The agent's two settings modes, run as the built exe beside the stand-in settings library, which
// records its calls in a file named by the environment.
#include "test_agent_support.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using namespace kvtest;

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
