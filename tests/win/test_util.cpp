// UtilSettings and UtilFile against the stand-in service program and settings library, which
// record how they were called (fake_record.h). The service's restart, its start and the file
// information have no caller in the agent and no test here.
#include "UtilFile.h"
#include "UtilSettings.h"

#include "test_logging_support.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace
{

using kvtest::ModuleFolder;

// Points KVNXST_TEST_RECORD at a fresh file for the stand-ins to write to.
class RecordFile
{
public:
    RecordFile() { SetEnvironmentVariableW(L"KVNXST_TEST_RECORD", m_path.c_str()); }
    ~RecordFile() { SetEnvironmentVariableW(L"KVNXST_TEST_RECORD", nullptr); }

    // Waits up to ten seconds for another process to write nLines lines.
    std::vector<std::string> Read(size_t nLines = 0) const
    {
        for (int i = 0; i < 100 && Lines().size() < nLines; ++i)
            Sleep(100);
        return Lines();
    }

private:
    std::vector<std::string> Lines() const { return kvtest::Lines(kvtest::ReadTextFile(m_path)); }
    kvtest::TempFolder m_folder;
    const std::wstring m_path = m_folder.Path() + L"record.txt";
};

// The settings library is taken from the agent's folder only; found there, it is run by the built
// agent's settings modes (test_agent_e2e.cpp).
TEST(UtilSettingsDialog, LibraryOnlyOnTheSearchPathIsRefused)
{
    RecordFile record;
    ASSERT_TRUE(SetDllDirectoryW((ModuleFolder() + L"fake-settings").c_str()));
    HMODULE hStray = LoadLibraryW(L"KVNXSET.DLL");
    EXPECT_NE(nullptr, hStray) << "the search path does reach the stray copy";
    FreeLibrary(hStray);
    EXPECT_EQ(nullptr, Vexa_LoadLibrary(L"KVNXSET.DLL"));
    EXPECT_EQ(static_cast<DWORD>(ERROR_MOD_NOT_FOUND), GetLastError());
    EXPECT_EQ(0, DisplaySettingsDialog(nullptr, 1));
    SetDllDirectoryW(nullptr);
    EXPECT_TRUE(record.Read().empty());
}

TEST(UtilSettingsProbe, WriteAccessProbeLeavesNoValueBehind)
{
    EXPECT_EQ(1, TestRegistryWriteAccess());
    EXPECT_EQ(ERROR_FILE_NOT_FOUND, RegGetValueW(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Kestrova Development",
                                                 L"Test", RRF_RT_ANY, nullptr, nullptr, nullptr));
}

TEST(UtilFile, ShellExecStartsTheProgramWithItsParameters)
{
    RecordFile record;
    const std::wstring program = L"\"" + ModuleFolder() + L"kvnxst_fake_service.exe\"";
    ASSERT_TRUE(KvShellExec(nullptr, L"open", program.c_str(), L"-x \"two words\"", nullptr));
    EXPECT_EQ((std::vector<std::string>{"args=-x \"two words\""}), record.Read(1));
}

} // namespace
