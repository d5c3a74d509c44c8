// UtilService against a stand-in service created in the test prefix (Wine's Service Control
// Manager is real), UtilSettings and UtilFile against stand-in programs and a stand-in settings
// library that record how they were called.
#include "UtilFile.h"
#include "UtilService.h"
#include "UtilSettings.h"

#include "test_logging_support.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

namespace
{

using kvtest::Lines;
using kvtest::ModuleFolder;
using kvtest::ReadTextFile;

// Points KVNXST_TEST_RECORD at a fresh file for the stand-ins to write to.
class RecordFile
{
public:
    RecordFile() : m_path(m_folder.Path() + L"record.txt")
    {
        SetEnvironmentVariableW(L"KVNXST_TEST_RECORD", m_path.c_str());
    }
    ~RecordFile() { SetEnvironmentVariableW(L"KVNXST_TEST_RECORD", nullptr); }

    std::vector<std::string> Read() const { return Lines(ReadTextFile(m_path)); }
    // For a record written by another process: waits until it has nLines lines.
    std::vector<std::string> WaitFor(size_t nLines) const
    {
        for (int i = 0; i < 100 && Read().size() < nLines; ++i)
            Sleep(100);
        return Read();
    }

private:
    kvtest::TempFolder m_folder;
    std::wstring m_path;
};

// A stand-in copied into the agent's folder under the name the agent looks for, removed again at
// the end (a process may still hold it for a moment).
class PlacedFile
{
public:
    PlacedFile(const std::wstring& from, const std::wstring& name) : m_path(ModuleFolder() + name)
    {
        m_bPlaced = CopyFileW((ModuleFolder() + from).c_str(), m_path.c_str(), FALSE) != FALSE;
    }
    ~PlacedFile()
    {
        for (int i = 0; i < 50 && !DeleteFileW(m_path.c_str()) && GetLastError() != ERROR_FILE_NOT_FOUND; ++i)
            Sleep(100);
    }
    bool Placed() const { return m_bPlaced; }

private:
    std::wstring m_path;
    bool m_bPlaced;
};

// --- UtilService: the service "kvnxsv", absent, installed, running, stopped.

class UtilServiceScm : public ::testing::Test
{
protected:
    void SetUp() override
    {
        m_hManager = OpenSCManagerW(nullptr, nullptr, SC_MANAGER_ALL_ACCESS);
        ASSERT_NE(nullptr, m_hManager);
        RemoveService();
    }
    void TearDown() override
    {
        RemoveService();
        CloseServiceHandle(m_hManager);
    }

    void Install()
    {
        const std::wstring command = L"\"" + ModuleFolder() + L"kvnxst_fake_service.exe\"";
        SC_HANDLE h = CreateServiceW(m_hManager, L"kvnxsv", L"kvnxsv test stand-in", SERVICE_ALL_ACCESS,
                                     SERVICE_WIN32_OWN_PROCESS, SERVICE_DEMAND_START, SERVICE_ERROR_IGNORE,
                                     command.c_str(), nullptr, nullptr, nullptr, nullptr, nullptr);
        ASSERT_NE(nullptr, h) << GetLastError();
        CloseServiceHandle(h);
    }

    // Waits for the service to reach dwState; true when it did.
    bool WaitForState(DWORD dwState)
    {
        SC_HANDLE h = OpenServiceW(m_hManager, L"kvnxsv", SERVICE_QUERY_STATUS);
        SERVICE_STATUS status = {};
        for (int i = 0; i < 100 && QueryServiceStatus(h, &status) && status.dwCurrentState != dwState; ++i)
            Sleep(100);
        CloseServiceHandle(h);
        return status.dwCurrentState == dwState;
    }

    void Stop()
    {
        SC_HANDLE h = OpenServiceW(m_hManager, L"kvnxsv", SERVICE_STOP);
        SERVICE_STATUS status = {};
        ControlService(h, SERVICE_CONTROL_STOP, &status);
        CloseServiceHandle(h);
    }

    void RemoveService()
    {
        SC_HANDLE h = OpenServiceW(m_hManager, L"kvnxsv", SERVICE_ALL_ACCESS);
        if (h == nullptr)
            return;
        SERVICE_STATUS status = {};
        if (ControlService(h, SERVICE_CONTROL_STOP, &status))
            WaitForState(SERVICE_STOPPED);
        DeleteService(h);
        CloseServiceHandle(h);
    }

    SC_HANDLE m_hManager = nullptr;
};

TEST_F(UtilServiceScm, AbsentServiceIsNeitherInstalledNorRunning)
{
    SetLastError(ERROR_ACCESS_DENIED);
    EXPECT_EQ(0, IsServiceInstalled());
    EXPECT_EQ(0u, GetLastError());

    EXPECT_EQ(0, IsServiceRunning());
    EXPECT_EQ(static_cast<DWORD>(ERROR_SERVICE_DOES_NOT_EXIST), GetLastError());

    EXPECT_EQ(static_cast<DWORD>(ERROR_SERVICE_DOES_NOT_EXIST), StartLocalKvnxsvService());
}

TEST_F(UtilServiceScm, InstalledServiceThroughStartAndStop)
{
    ASSERT_NO_FATAL_FAILURE(Install());
    EXPECT_EQ(1, IsServiceInstalled());
    SetLastError(ERROR_IO_PENDING);
    EXPECT_EQ(0, IsServiceRunning());
    EXPECT_EQ(0u, GetLastError()) << "a stopped service is no error";

    EXPECT_EQ(0u, StartLocalKvnxsvService());
    ASSERT_TRUE(WaitForState(SERVICE_RUNNING));
    EXPECT_EQ(1, IsServiceRunning());
    EXPECT_EQ(1, IsServiceInstalled());
    EXPECT_EQ(static_cast<DWORD>(ERROR_SERVICE_ALREADY_RUNNING), StartLocalKvnxsvService());

    Stop();
    ASSERT_TRUE(WaitForState(SERVICE_STOPPED));
    EXPECT_EQ(0, IsServiceRunning());
    EXPECT_EQ(1, IsServiceInstalled());
}

// --- UtilSettings: the application-mode service's window, and restarting it.

// A top-level window titled "KVNXSV" on a thread of its own, which closes on WM_CLOSE or not.
class ServiceWindow
{
public:
    explicit ServiceWindow(bool bClosesOnRequest) : m_bCloses(bClosesOnRequest)
    {
        m_thread = std::thread([this] { Run(); });
        while (!m_bReady)
            Sleep(10);
    }
    ~ServiceWindow()
    {
        PostThreadMessageW(m_dwThreadId, WM_QUIT, 0, 0);
        m_thread.join();
    }
    ServiceWindow(const ServiceWindow&) = delete;
    ServiceWindow& operator=(const ServiceWindow&) = delete;

    int Closes() const { return m_nCloses; }

private:
    static LRESULT CALLBACK Proc(HWND hWnd, UINT uMsg, WPARAM wParam, LPARAM lParam)
    {
        auto* self = reinterpret_cast<ServiceWindow*>(GetWindowLongPtrW(hWnd, GWLP_USERDATA));
        if (uMsg == WM_CLOSE && self != nullptr)
        {
            ++self->m_nCloses;
            if (!self->m_bCloses)
                return 0;
        }
        return DefWindowProcW(hWnd, uMsg, wParam, lParam);
    }

    void Run()
    {
        m_dwThreadId = GetCurrentThreadId();
        WNDCLASSW wc = {};
        wc.lpfnWndProc = Proc;
        wc.hInstance = GetModuleHandleW(nullptr);
        wc.lpszClassName = L"KvTestServiceWindow";
        RegisterClassW(&wc);
        HWND hWnd = CreateWindowW(wc.lpszClassName, L"KVNXSV", WS_OVERLAPPED, 0, 0, 10, 10, nullptr, nullptr,
                                  wc.hInstance, nullptr);
        SetWindowLongPtrW(hWnd, GWLP_USERDATA, reinterpret_cast<LONG_PTR>(this));
        MSG msg;
        PeekMessageW(&msg, nullptr, 0, 0, PM_NOREMOVE); // the queue exists before anyone posts
        m_bReady = true;
        while (GetMessageW(&msg, nullptr, 0, 0) > 0)
            DispatchMessageW(&msg);
        if (IsWindow(hWnd))
            DestroyWindow(hWnd);
    }

    bool m_bCloses;
    std::atomic<int> m_nCloses{0};
    std::atomic<bool> m_bReady{false};
    DWORD m_dwThreadId = 0;
    std::thread m_thread;
};

TEST(UtilSettingsRestart, WindowThatIgnoresCloseDefeatsKillAndRestart)
{
    RecordFile record;
    PlacedFile service(L"kvnxst_fake_service.exe", L"KVNXS.EXE");
    ASSERT_TRUE(service.Placed());
    ServiceWindow window(false);

    const DWORD dwStart = GetTickCount();
    EXPECT_EQ(0, KillApplication());
    const DWORD dwElapsed = GetTickCount() - dwStart;
    EXPECT_EQ(12, window.Closes());
    EXPECT_GE(dwElapsed, 6000u) << "half a second per attempt and once more";

    EXPECT_EQ(0, RestartService());
    EXPECT_EQ(24, window.Closes());
    Sleep(500);
    EXPECT_TRUE(record.Read().empty()) << "the service must not be started while its window stays";
}

TEST(UtilSettingsRestart, WindowThatClosesIsReplacedByAStartedService)
{
    RecordFile record;
    PlacedFile service(L"kvnxst_fake_service.exe", L"KVNXS.EXE");
    ASSERT_TRUE(service.Placed());
    {
        ServiceWindow window(true);
        EXPECT_EQ(1, RestartService());
        EXPECT_EQ(1, window.Closes());
    }
    EXPECT_EQ((std::vector<std::string>{"args=-service"}), record.WaitFor(1));

    // Nothing left to close: nothing is posted and the kill succeeds.
    EXPECT_EQ(1, KillApplication());
}

TEST(UtilSettingsRestart, MissingServiceProgramFailsTheStart)
{
    EXPECT_EQ(0, StartAsService());
}

// --- The settings library: from the agent's folder only, in application or service mode.

class UtilSettingsDialog : public ::testing::Test
{
protected:
    void TearDown() override { SetEnvironmentVariableW(L"KVNXST_TEST_SETTINGS_RESULT", nullptr); }

    const std::wstring m_stray = L"fake-settings\\KVNXSET.DLL";
};

TEST_F(UtilSettingsDialog, LibraryOnlyOnTheSearchPathIsRefused)
{
    RecordFile record;
    const std::wstring folder = ModuleFolder() + L"fake-settings";
    ASSERT_TRUE(SetDllDirectoryW(folder.c_str()));
    HMODULE hStray = LoadLibraryW(L"KVNXSET.DLL");
    EXPECT_NE(nullptr, hStray) << "the search path does reach the stray copy";
    if (hStray != nullptr)
        FreeLibrary(hStray);

    EXPECT_EQ(nullptr, Vexa_LoadLibrary(L"KVNXSET.DLL"));
    EXPECT_EQ(static_cast<DWORD>(ERROR_MOD_NOT_FOUND), GetLastError());
    EXPECT_EQ(0, DisplaySettingsDialog(nullptr, 0));
    EXPECT_EQ(0, DisplaySettingsDialog(nullptr, 1));
    SetDllDirectoryW(nullptr);
    EXPECT_TRUE(record.Read().empty());
}

TEST_F(UtilSettingsDialog, ApplicationModeIsSetBeforeTheDialog)
{
    RecordFile record;
    PlacedFile library(m_stray, L"KVNXSET.DLL");
    ASSERT_TRUE(library.Placed());

    HMODULE hLibrary = Vexa_LoadLibrary(L"KVNXSET.DLL");
    ASSERT_NE(nullptr, hLibrary);
    EXPECT_EQ(0u, GetLastError());
    FreeLibrary(hLibrary);

    EXPECT_EQ(1, DisplaySettingsDialog(nullptr, 0));
    EXPECT_EQ((std::vector<std::string>{"SetApplicationMode", "SettingsDialog owner=0"}), record.Read());
}

TEST_F(UtilSettingsDialog, ServiceModeLeavesTheModeAndPassesTheOwner)
{
    RecordFile record;
    PlacedFile library(m_stray, L"KVNXSET.DLL");
    ASSERT_TRUE(library.Placed());
    HWND hOwner = GetDesktopWindow();

    // Wine runs as an administrator, so the write-access probe passes and nothing is asked.
    EXPECT_EQ(1, DisplaySettingsDialog(hOwner, 1));
    SetEnvironmentVariableW(L"KVNXST_TEST_SETTINGS_RESULT", L"0");
    EXPECT_EQ(0, DisplaySettingsDialog(hOwner, 1));
    const std::string line =
        "SettingsDialog owner=" + std::to_string(reinterpret_cast<unsigned long long>(hOwner));
    EXPECT_EQ((std::vector<std::string>{line, line}), record.Read());
}

TEST(UtilSettingsProbe, WriteAccessProbeLeavesNoValueBehind)
{
    EXPECT_EQ(1, TestRegistryWriteAccess());
    HKEY hKey = nullptr;
    ASSERT_EQ(ERROR_SUCCESS, RegOpenKeyExW(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Kestrova Development", 0,
                                           KEY_QUERY_VALUE, &hKey));
    EXPECT_EQ(ERROR_FILE_NOT_FOUND, RegQueryValueExW(hKey, L"Test", nullptr, nullptr, nullptr, nullptr));
    RegCloseKey(hKey);
}

// --- UtilFile.

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
    EXPECT_EQ(0, GetFileInformation(L"", &data));
    EXPECT_EQ(0, GetFileInformation(nullptr, &data));
    EXPECT_EQ(0, GetFileInformation(path.c_str(), nullptr));
}

TEST(UtilFile, ShellExecStartsTheProgramWithItsParameters)
{
    RecordFile record;
    const std::wstring program = L"\"" + ModuleFolder() + L"kvnxst_fake_service.exe\"";
    ASSERT_TRUE(KvShellExec(nullptr, L"open", program.c_str(), L"-x \"two words\"", nullptr));
    EXPECT_EQ((std::vector<std::string>{"args=-x \"two words\""}), record.WaitFor(1));
    // A missing program is not tried here: the shell reports it in a message box.
}

} // namespace
