// UtilService against a stand-in service created in the test prefix (Wine's Service Control
// Manager is real); UtilSettings and UtilFile against a stand-in service program and settings
// library that record how they were called (fake_record.h).
#include "UtilFile.h"
#include "UtilService.h"
#include "UtilSettings.h"

#include "stand_in_service.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <thread>
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

// A stand-in copied into the agent's folder under the name the agent looks for, until the end of
// the scope (a process may hold it a moment longer).
struct PlacedFile
{
    PlacedFile(const std::wstring& from, const std::wstring& name) : path(ModuleFolder() + name)
    {
        EXPECT_TRUE(CopyFileW((ModuleFolder() + from).c_str(), path.c_str(), FALSE));
    }
    ~PlacedFile()
    {
        for (int i = 0; i < 50 && !DeleteFileW(path.c_str()) && GetLastError() != ERROR_FILE_NOT_FOUND; ++i)
            Sleep(100);
    }
    const std::wstring path;
};

// Which state the service is in is proved through the connection thread's giving-up event
// (test_service_link.cpp); here, starting it.
TEST(UtilService, StartingTheServiceSaysWhyItDidNot)
{
    kvtest::StandInService service;
    EXPECT_EQ(static_cast<DWORD>(ERROR_SERVICE_DOES_NOT_EXIST), StartLocalKvnxsvService());
    ASSERT_TRUE(service.Install()) << GetLastError();
    EXPECT_EQ(0u, StartLocalKvnxsvService());
    ASSERT_TRUE(service.Control(0, SERVICE_RUNNING));
    EXPECT_EQ(static_cast<DWORD>(ERROR_SERVICE_ALREADY_RUNNING), StartLocalKvnxsvService());
}

// The application-mode service's window "KVNXSV". One of this thread never handles its messages,
// so it ignores WM_CLOSE and the posts wait in the queue to be counted.
TEST(UtilSettingsRestart, WindowThatIgnoresCloseDefeatsKillAndRestart)
{
    RecordFile record;
    PlacedFile service(L"kvnxst_fake_service.exe", L"KVNXS.EXE");
    HWND hWnd =
        CreateWindowW(L"STATIC", L"KVNXSV", WS_OVERLAPPED, 0, 0, 10, 10, nullptr, nullptr, nullptr, nullptr);
    const auto posts = [hWnd]
    {
        int n = 0;
        for (MSG msg; PeekMessageW(&msg, hWnd, WM_CLOSE, WM_CLOSE, PM_REMOVE);)
            ++n;
        return n;
    };
    EXPECT_EQ(0, KillApplication());
    EXPECT_EQ(12, posts()) << "one close per attempt";
    EXPECT_EQ(0, RestartService());
    EXPECT_EQ(12, posts());
    DestroyWindow(hWnd);
    Sleep(500);
    EXPECT_TRUE(record.Read().empty()) << "the service must not be started while its window stays";
}

TEST(UtilSettingsRestart, WindowThatClosesIsReplacedByAStartedService)
{
    RecordFile record;
    EXPECT_EQ(0, StartAsService()) << "no service program yet";
    PlacedFile service(L"kvnxst_fake_service.exe", L"KVNXS.EXE");
    std::thread window(
        [&]
        {
            HWND hWnd = CreateWindowW(L"STATIC", L"KVNXSV", WS_OVERLAPPED, 0, 0, 10, 10, nullptr, nullptr,
                                      nullptr, nullptr);
            for (MSG msg; IsWindow(hWnd) && GetMessageW(&msg, nullptr, 0, 0) > 0;)
                DispatchMessageW(&msg);
        });
    for (int i = 0; i < 100 && FindWindowW(nullptr, L"KVNXSV") == nullptr; ++i)
        Sleep(50);
    EXPECT_EQ(1, RestartService());
    window.join();
    EXPECT_EQ((std::vector<std::string>{"args=-service"}), record.Read(1));
}

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

TEST(UtilFile, FileInformationOnlyForAnExistingFile)
{
    kvtest::TempFolder folder;
    const std::wstring path = folder.Path() + L"five.bin";
    kvtest::WriteTextFile(path, "12345");
    WIN32_FIND_DATAW data;
    ASSERT_EQ(1, GetFileInformation(path.c_str(), &data));
    EXPECT_STREQ(L"five.bin", data.cFileName);
    EXPECT_EQ(5u, data.nFileSizeLow);

    std::memset(&data, 0xA5, sizeof data);
    EXPECT_EQ(0, GetFileInformation((folder.Path() + L"none.bin").c_str(), &data));
    EXPECT_EQ(0u, data.nFileSizeLow) << "the output is cleared first";
    EXPECT_EQ(0, GetFileInformation(path.c_str(), nullptr));
}

TEST(UtilFile, ShellExecStartsTheProgramWithItsParameters)
{
    RecordFile record;
    const std::wstring program = L"\"" + ModuleFolder() + L"kvnxst_fake_service.exe\"";
    ASSERT_TRUE(KvShellExec(nullptr, L"open", program.c_str(), L"-x \"two words\"", nullptr));
    EXPECT_EQ((std::vector<std::string>{"args=-x \"two words\""}), record.Read(1));
}

} // namespace
