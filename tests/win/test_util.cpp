// The error text the log shows for a system error code, and UtilSettings and UtilFile against the stand-in
// service program and settings library, which record how they were called (fake_record.h). The service's
// restart, its start and the file information have no caller in the agent and no test here.
#include "KvException.h"
#include "KvSystemApi.h"
#include "SFT_DropFiles.h"
#include "UtilFile.h"
#include "UtilLog.h"
#include "UtilSettings.h"

#include "test_logging_support.h"

#include <gtest/gtest.h>

#include <shlobj.h>

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

// What the system says about a code, on one line, whatever form the code came in: a Win32 code
// inside an HRESULT is that code; a network code asks netmsg.dll (which Wine lacks: the number
// alone), never the system table; a code nobody knows is the number alone.
TEST(UtilLogErrorText, OneLineOfTheSystemsTextOrTheNumberAlone)
{
    wchar_t* pText = nullptr;
    FormatMessageW(FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM |
                       FORMAT_MESSAGE_IGNORE_INSERTS,
                   nullptr, ERROR_ACCESS_DENIED, 0, reinterpret_cast<LPWSTR>(&pText), 0, nullptr);
    ASSERT_NE(nullptr, pText);
    std::wstring denied = pText;
    LocalFree(pText);
    while (!denied.empty() && (denied.back() == L'\n' || denied.back() == L'\r' || denied.back() == L' '))
        denied.pop_back();

    const HMODULE hNetmsg = LoadLibraryExW(L"netmsg.dll", nullptr, LOAD_LIBRARY_AS_DATAFILE);
    if (hNetmsg != nullptr)
        FreeLibrary(hNetmsg);
    else
        EXPECT_EQ(L"Error: 2102", KvErrorText(2102));
    EXPECT_EQ(L"Error: 5 - " + denied, KvErrorText(ERROR_ACCESS_DENIED));
    EXPECT_EQ(L"Error: 5 - " + denied,
              KvErrorText(static_cast<DWORD>(HRESULT_FROM_WIN32(ERROR_ACCESS_DENIED))));
    EXPECT_EQ(L"Error: 59999", KvErrorText(59999));

    // No line break and no trailing blank survive, in any of the system's texts.
    for (DWORD dwCode = 0; dwCode < 16000; ++dwCode)
    {
        const std::wstring text = KvErrorText(dwCode);
        ASSERT_EQ(0u, text.rfind(L"Error: " + std::to_wstring(dwCode), 0)) << dwCode;
        ASSERT_EQ(std::wstring::npos, text.find_first_of(L"\r\n")) << dwCode;
        ASSERT_NE(L' ', text.back()) << dwCode;
    }
}

// The temporary files of the file transfer: made only where nothing is, and deleted only when the
// name is still the plain file the agent made. Wine cannot make a reparse point, so the system's
// answer about the file says it is one.
TEST(UtilFile, TempFileIsCreatedOnlyNewAndNeverDeletedThroughALink)
{
    const kvtest::TempFolder folder;
    const std::wstring path = folder.Path() + L"transfer.ini";
    const auto Failure = [](auto&& action) -> std::wstring
    {
        try
        {
            action();
        }
        catch (const kvUtil::kvException& e)
        {
            return e.Text() + L" " + std::to_wstring(e.Error());
        }
        return L"none";
    };

    EXPECT_EQ(L"none", Failure([&] { KvCreateNewFile(path.c_str()); }));
    kvtest::WriteTextFile(path, "kept");
    EXPECT_EQ(L"Cannot get file handle. 80", Failure([&] { KvCreateNewFile(path.c_str()); }));
    EXPECT_EQ("kept", kvtest::ReadTextFile(path));

    KvSystemApi api = KvDefaultSystemApi();
    api.pfnGetFileInformationByHandle = [](HANDLE hFile, LPBY_HANDLE_FILE_INFORMATION pInfo) -> BOOL
    {
        const BOOL bRead = GetFileInformationByHandle(hFile, pInfo);
        pInfo->dwFileAttributes |= FILE_ATTRIBUTE_REPARSE_POINT;
        return bRead;
    };
    {
        KvScopedSystemApi scoped(api);
        EXPECT_EQ(L"File is reparse point. 5", Failure([&] { KvSecureDeleteFile(path.c_str()); }));
    }
    EXPECT_EQ("kept", kvtest::ReadTextFile(path));

    // Somebody else holding the file open keeps it too.
    HANDLE hHeld = CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr);
    EXPECT_EQ(L"Cannot get file handle. 32", Failure([&] { KvSecureDeleteFile(path.c_str()); }));
    CloseHandle(hHeld);

    EXPECT_EQ(L"none", Failure([&] { KvSecureDeleteFile(path.c_str()); }));
    EXPECT_EQ(INVALID_FILE_ATTRIBUTES, GetFileAttributesW(path.c_str()));
    EXPECT_EQ(L"Cannot get file handle. 2", Failure([&] { KvSecureDeleteFile(path.c_str()); }));
}

TEST(UtilFile, MappedNetworkDrivesBecomeUniversalPathsAndOthersStayAsTheyAre)
{
    // Wine maps no drive to a share: Z: stands in for one, with a share name too long for a first try.
    KvSystemApi api = KvDefaultSystemApi();
    api.pfnWNetGetUniversalNameW = [](LPCWSTR szLocal, DWORD dwLevel, LPVOID pBuffer, LPDWORD pcb) -> DWORD
    {
        const std::wstring local(szLocal);
        if (dwLevel != UNIVERSAL_NAME_INFO_LEVEL || local.rfind(L"Z:\\", 0) != 0)
            return ERROR_NOT_CONNECTED;
        const std::wstring unc = L"\\\\fileserver\\" + std::wstring(300, L's') + local.substr(2);
        const DWORD cbNeeded =
            static_cast<DWORD>(sizeof(UNIVERSAL_NAME_INFOW) + (unc.size() + 1) * sizeof(wchar_t));
        if (*pcb < cbNeeded)
        {
            *pcb = cbNeeded;
            return ERROR_MORE_DATA;
        }
        auto* pInfo = static_cast<UNIVERSAL_NAME_INFOW*>(pBuffer);
        pInfo->lpUniversalName = reinterpret_cast<LPWSTR>(pInfo + 1);
        wcscpy(pInfo->lpUniversalName, unc.c_str());
        return NO_ERROR;
    };
    KvScopedSystemApi scoped(api);
    EXPECT_EQ(L"\\\\fileserver\\" + std::wstring(300, L's') + L"\\plans\\b.txt",
              KvUniversalPath(L"Z:\\plans\\b.txt"));
    EXPECT_EQ(L"C:\\users\\a.txt", KvUniversalPath(L"C:\\users\\a.txt"));
}

TEST(UtilFile, ADropBlockIsReadOnlyWithinItsBytes)
{
    // DROPFILES, then the names, each ended, then an empty one.
    const auto Block = [](BOOL bWide, const std::vector<std::string>& names, std::size_t cbCut)
    {
        DROPFILES head = {};
        head.pFiles = sizeof head;
        head.fWide = bWide;
        std::vector<std::uint8_t> bytes(reinterpret_cast<std::uint8_t*>(&head),
                                        reinterpret_cast<std::uint8_t*>(&head) + sizeof head);
        for (const std::string& name : names)
            for (char c : name + '\0')
            {
                bytes.push_back(static_cast<std::uint8_t>(c));
                if (bWide)
                    bytes.push_back(0);
            }
        bytes.insert(bytes.end(), bWide ? 2 : 1, 0);
        bytes.resize(bytes.size() - cbCut);
        return bytes;
    };
    const std::vector<std::wstring> both = {L"C:\\a.txt", L"C:\\b.txt"};
    for (BOOL bWide : {TRUE, FALSE})
    {
        const auto whole = Block(bWide, {"C:\\a.txt", "C:\\b.txt"}, 0);
        EXPECT_EQ(both, KvReadFileDrop(whole.data(), whole.size()));
        // Without the list's end the names still count; a name cut short does not.
        EXPECT_EQ(both, KvReadFileDrop(whole.data(), whole.size() - (bWide ? 2 : 1)));
        EXPECT_EQ(std::vector<std::wstring>{both[0]},
                  KvReadFileDrop(whole.data(), whole.size() - (bWide ? 4 : 2)));
    }
    // A head that points outside the block, or no whole head: nothing.
    auto outside = Block(TRUE, {"C:\\a.txt"}, 0);
    outside[0] = 0xFF;
    EXPECT_TRUE(KvReadFileDrop(outside.data(), outside.size()).empty());
    EXPECT_TRUE(KvReadFileDrop(outside.data(), sizeof(DROPFILES) - 1).empty());
}
