#include "UtilSettings.h"

#include "KvHandles.h"
#include "KvLogging.h"
#include "ResourceText.h"
#include "UtilFile.h"
#include "resource.h"

#include <shellapi.h>

#include <cwchar>

static log4cxx::LoggerPtr logger(KvGetLogger(KvLoggerName::UtilSettings));

namespace
{

constexpr wchar_t KV_SERVICE_WINDOW_TITLE[] = L"KVNXSV";
constexpr wchar_t KV_SERVICE_PROGRAM[] = L"KVNXS.EXE";
constexpr wchar_t KV_APP_CAPTION[] = L"Kestrova Vexa Remote Control";
constexpr int KV_KILL_ATTEMPTS = 12;

template <typename Fn> Fn FindFunction(HMODULE hModule, const char* szName)
{
    // Through the generic function type, which the compilers accept without a warning.
    return reinterpret_cast<Fn>(reinterpret_cast<void (*)()>(GetProcAddress(hModule, szName)));
}

// Half a second, yielding first and after, so the service's thread gets to run.
void PauseForService()
{
    Sleep(0);
    Sleep(500);
    Sleep(0);
}

} // namespace

int KillApplication()
{
    KvLogBlock logBlock(logger, L"KillApplication");
    HWND hWnd = FindWindowW(nullptr, KV_SERVICE_WINDOW_TITLE);
    for (int nAttempt = 0; hWnd != nullptr && nAttempt < KV_KILL_ATTEMPTS; ++nAttempt)
    {
        PostMessageW(hWnd, WM_CLOSE, 0, 0);
        PauseForService();
        hWnd = FindWindowW(nullptr, KV_SERVICE_WINDOW_TITLE);
    }
    PauseForService();
    const int bGone = (hWnd == nullptr || !IsWindow(hWnd)) ? 1 : 0;
    LOG4CXX_INFO(logger, L"KillApplication=" << bGone);
    return bGone;
}

int StartAsService()
{
    KvLogBlock logBlock(logger, L"StartAsService");
    wchar_t szPath[MAX_PATH];
    if (!GetAgentFolder(szPath, MAX_PATH) ||
        std::wcslen(szPath) + std::wcslen(KV_SERVICE_PROGRAM) >= MAX_PATH)
        return 0;
    std::wcscat(szPath, KV_SERVICE_PROGRAM);
    const INT_PTR nResult =
        reinterpret_cast<INT_PTR>(ShellExecuteW(nullptr, L"open", szPath, L"-service", nullptr, SW_SHOW));
    LOG4CXX_INFO(logger, L"StartAsService path=" << szPath << L" result=" << nResult);
    return nResult >= 32 ? 1 : 0;
}

int RestartService()
{
    KvLogBlock logBlock(logger, L"RestartService");
    if (!KillApplication())
        return 0;
    return StartAsService();
}

void SetApplicationMode(HMODULE hSettingsLibrary)
{
    KvLogBlock logBlock(logger, L"SetApplicationMode");
    auto pfn = FindFunction<PFN_KVNX_SetApplicationMode>(hSettingsLibrary, "KVNX_SetApplicationMode");
    if (pfn != nullptr)
        pfn();
    else
        LOG4CXX_WARN(logger, L"KVNX_SetApplicationMode not found");
}

int TestRegistryWriteAccess()
{
    KvLogBlock logBlock(logger, L"TestRegistryWriteAccess");
    KvRegKey key;
    LONG lResult = RegCreateKeyExW(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Kestrova Development", 0, nullptr,
                                   REG_OPTION_NON_VOLATILE, KEY_ALL_ACCESS, nullptr, key.Put(), nullptr);
    if (lResult != ERROR_SUCCESS)
    {
        LOG4CXX_INFO(logger, L"TestRegistryWriteAccess RegCreateKeyExW=" << lResult);
        return 0;
    }
    const DWORD dwValue = 1;
    lResult =
        RegSetValueExW(key.Get(), L"Test", 0, REG_DWORD, reinterpret_cast<const BYTE*>(&dwValue), sizeof dwValue);
    if (lResult == ERROR_SUCCESS)
        lResult = RegDeleteValueW(key.Get(), L"Test");
    LOG4CXX_INFO(logger, L"TestRegistryWriteAccess result=" << lResult);
    return lResult == ERROR_SUCCESS ? 1 : 0;
}

int DisplaySettingsDialog(HWND hOwner, int bService)
{
    KvLogBlock logBlock(logger, L"DisplaySettingsDialog");
    LOG4CXX_INFO(logger, L"hOwner=" << static_cast<const void*>(hOwner) << L" bService=" << bService);
    if (bService && !TestRegistryWriteAccess())
    {
        if (MessageBoxW(hOwner, KvLoadText(IDS_SETTINGS_NO_WRITE_ACCESS).c_str(), KV_APP_CAPTION, MB_YESNO | MB_ICONINFORMATION | MB_DEFBUTTON2) ==
            IDNO)
            return 0;
    }

    const KvModule library(Vexa_LoadLibrary(KV_SETTINGS_LIBRARY));
    if (!library)
        return 0;
    if (!bService)
        SetApplicationMode(library.Get());
    int nResult = 0;
    auto pfn = FindFunction<PFN_KVNX_SettingsDialog>(library.Get(), "KVNX_SettingsDialog");
    if (pfn != nullptr)
        nResult = pfn(hOwner);
    else
        LOG4CXX_WARN(logger, L"KVNX_SettingsDialog not found");
    LOG4CXX_INFO(logger, L"KVNX_SettingsDialog=" << nResult);
    return nResult != 0 ? 1 : 0;
}

int ExecuteSettingsDialog(HWND hOwner, int bService)
{
    KvLogBlock logBlock(logger, L"ExecuteSettingsDialog");
    wchar_t szModule[MAX_PATH] = {};
    if (!GetAgentPath(szModule, MAX_PATH))
        return 0;
    // Quoted, because the shell would otherwise split a path with blanks.
    wchar_t szFile[MAX_PATH + 2];
    std::swprintf(szFile, MAX_PATH + 2, L"\"%ls\"", szModule);

    if (bService)
    {
        LOG4CXX_INFO(logger, L"Running self with -Settings");
        return KvShellExec(hOwner, L"runas", szFile, L"-Settings", nullptr) ? 1 : 0;
    }
    LOG4CXX_INFO(logger, L"Running self with -SettingsAsApplication");
    const INT_PTR nResult = reinterpret_cast<INT_PTR>(
        ShellExecuteW(hOwner, L"open", szFile, L"-SettingsAsApplication", L"", SW_SHOW));
    return nResult > 32 ? 1 : 0;
}
