#include "KvSystemApi.h"

#include "KvHandles.h"

#include <atomic>
#include <cwchar>

namespace
{

// A system library loaded for one call and freed at the end of the scope. The error mode keeps a
// missing file from raising a box; it is the thread's own, since another thread may be loading a
// library meanwhile. The last error of the call survives the clean-up.
class QuietLibrary
{
public:
    explicit QuietLibrary(const wchar_t* szPath)
    {
        DWORD dwPrevious = 0;
        const BOOL bModeSet = SetThreadErrorMode(SEM_FAILCRITICALERRORS | SEM_NOOPENFILEERRORBOX, &dwPrevious);
        m_module.Reset(LoadLibraryW(szPath));
        const DWORD dwError = GetLastError();
        if (bModeSet)
            SetThreadErrorMode(dwPrevious, nullptr);
        SetLastError(dwError);
    }

    // The function, or null with ERROR_MOD_NOT_FOUND / ERROR_PROC_NOT_FOUND as the last error.
    template <typename Fn> Fn Find(const char* szName) const
    {
        if (!m_module)
        {
            SetLastError(ERROR_MOD_NOT_FOUND);
            return nullptr;
        }
        FARPROC proc = GetProcAddress(m_module.Get(), szName);
        if (proc == nullptr)
        {
            SetLastError(ERROR_PROC_NOT_FOUND);
            return nullptr;
        }
        // Through the generic function type, which the compilers accept without a warning.
        return reinterpret_cast<Fn>(reinterpret_cast<void (*)()>(proc));
    }

private:
    KvModule m_module;
};

// Session notifications come from the copy in the system folder only.
bool SystemLibraryPath(const wchar_t* szName, wchar_t* szPath, UINT cchPath)
{
    const UINT cch = GetSystemDirectoryW(szPath, cchPath);
    if (cch == 0 || cch >= cchPath)
        return false;
    const bool bSlash = szPath[cch - 1] == L'\\';
    const size_t cchName = std::wcslen(szName);
    if (cch + (bSlash ? 0 : 1) + cchName >= cchPath)
        return false;
    if (!bSlash)
        std::wcscat(szPath, L"\\");
    std::wcscat(szPath, szName);
    return true;
}

BOOL WINAPI SysWTSQuerySessionInformationW(HANDLE hServer, DWORD dwSessionId, WTS_INFO_CLASS infoClass,
                                           LPWSTR* ppBuffer, DWORD* pcbReturned)
{
    QuietLibrary lib(L"wtsapi32.dll");
    auto pfn = lib.Find<decltype(KvSystemApi::pfnWTSQuerySessionInformationW)>("WTSQuerySessionInformationW");
    return pfn != nullptr ? pfn(hServer, dwSessionId, infoClass, ppBuffer, pcbReturned) : FALSE;
}

BOOL SysFindWTSFunction(const char* szName)
{
    QuietLibrary lib(L"wtsapi32.dll");
    return lib.Find<FARPROC>(szName) != nullptr ? TRUE : FALSE;
}

void WINAPI SysWTSFreeMemory(PVOID pMemory)
{
    QuietLibrary lib(L"wtsapi32.dll");
    auto pfn = lib.Find<decltype(KvSystemApi::pfnWTSFreeMemory)>("WTSFreeMemory");
    if (pfn != nullptr)
        pfn(pMemory);
}

BOOL WINAPI SysWTSEnumerateSessionsW(HANDLE hServer, DWORD dwReserved, DWORD dwVersion,
                                     PWTS_SESSION_INFOW* ppSessionInfo, DWORD* pdwCount)
{
    QuietLibrary lib(L"wtsapi32.dll");
    auto pfn = lib.Find<decltype(KvSystemApi::pfnWTSEnumerateSessionsW)>("WTSEnumerateSessionsW");
    return pfn != nullptr ? pfn(hServer, dwReserved, dwVersion, ppSessionInfo, pdwCount) : FALSE;
}

BOOL WINAPI SysWTSRegisterSessionNotification(HWND hWnd, DWORD dwFlags)
{
    wchar_t szPath[MAX_PATH];
    if (!SystemLibraryPath(L"wtsapi32.dll", szPath, MAX_PATH))
    {
        SetLastError(ERROR_MOD_NOT_FOUND);
        return FALSE;
    }
    QuietLibrary lib(szPath);
    auto pfn =
        lib.Find<decltype(KvSystemApi::pfnWTSRegisterSessionNotification)>("WTSRegisterSessionNotification");
    return pfn != nullptr ? pfn(hWnd, dwFlags) : FALSE;
}

BOOL WINAPI SysWTSUnRegisterSessionNotification(HWND hWnd)
{
    wchar_t szPath[MAX_PATH];
    if (!SystemLibraryPath(L"wtsapi32.dll", szPath, MAX_PATH))
    {
        SetLastError(ERROR_MOD_NOT_FOUND);
        return FALSE;
    }
    QuietLibrary lib(szPath);
    auto pfn = lib.Find<decltype(KvSystemApi::pfnWTSUnRegisterSessionNotification)>(
        "WTSUnRegisterSessionNotification");
    return pfn != nullptr ? pfn(hWnd) : FALSE;
}

BOOL WINAPI SysProcessIdToSessionId(DWORD dwProcessId, DWORD* pdwSessionId)
{
    QuietLibrary lib(L"Kernel32.dll");
    auto pfn = lib.Find<decltype(KvSystemApi::pfnProcessIdToSessionId)>("ProcessIdToSessionId");
    return pfn != nullptr ? pfn(dwProcessId, pdwSessionId) : FALSE;
}

DWORD WINAPI SysWTSGetActiveConsoleSessionId()
{
    QuietLibrary lib(L"Kernel32.dll");
    auto pfn =
        lib.Find<decltype(KvSystemApi::pfnWTSGetActiveConsoleSessionId)>("WTSGetActiveConsoleSessionId");
    return pfn != nullptr ? pfn() : 0xFFFFFFFF;
}

LONG WINAPI SysRtlGetVersion(OSVERSIONINFOEXW* pVersion)
{
    QuietLibrary lib(L"ntdll.dll");
    auto pfn = lib.Find<decltype(KvSystemApi::pfnRtlGetVersion)>("RtlGetVersion");
    // STATUS_NOT_IMPLEMENTED
    return pfn != nullptr ? pfn(pVersion) : static_cast<LONG>(0xC0000002L);
}

BOOL WINAPI SysLockWorkStation()
{
    QuietLibrary lib(L"user32.dll");
    auto pfn = lib.Find<decltype(KvSystemApi::pfnLockWorkStation)>("LockWorkStation");
    return pfn != nullptr ? pfn() : FALSE;
}

BOOL WINAPI SysIsUserAnAdmin()
{
    QuietLibrary lib(L"shell32.dll");
    auto pfn = lib.Find<decltype(KvSystemApi::pfnIsUserAnAdmin)>("IsUserAnAdmin");
    return pfn != nullptr ? pfn() : FALSE;
}

BOOL WINAPI SysPlaySoundW(LPCWSTR pszSound, HMODULE hmod, DWORD fdwSound)
{
    QuietLibrary lib(L"Winmm.DLL");
    auto pfn = lib.Find<decltype(KvSystemApi::pfnPlaySoundW)>("PlaySoundW");
    return pfn != nullptr ? pfn(pszSound, hmod, fdwSound) : FALSE;
}

BOOL SysGetInputDesktopName(wchar_t* szName, DWORD cchName)
{
    if (szName == nullptr || cchName == 0)
    {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    szName[0] = L'\0';
    const KvDesktop desk(OpenInputDesktop(0, FALSE, DESKTOP_READOBJECTS));
    if (!desk)
        return FALSE;
    DWORD cbNeeded = 0;
    const BOOL bRead =
        GetUserObjectInformationW(desk.Get(), UOI_NAME, szName, cchName * sizeof(wchar_t), &cbNeeded);
    if (!bRead)
        szName[0] = L'\0';
    szName[cchName - 1] = L'\0';
    return bRead;
}

BOOL SysGetScreenSaverRunning(BOOL* pbRunning)
{
    *pbRunning = FALSE;
    return SystemParametersInfoW(SPI_GETSCREENSAVERRUNNING, 0, pbRunning, 0);
}

const KvSystemApi g_defaultSystemApi = {
    SysWTSQuerySessionInformationW,
    SysFindWTSFunction,
    SysWTSFreeMemory,
    SysWTSEnumerateSessionsW,
    SysWTSRegisterSessionNotification,
    SysWTSUnRegisterSessionNotification,
    SysProcessIdToSessionId,
    SysWTSGetActiveConsoleSessionId,
    SysRtlGetVersion,
    SysLockWorkStation,
    ExitWindowsEx,
    GetForegroundWindow,
    SysIsUserAnAdmin,
    SysGetInputDesktopName,
    SysGetScreenSaverRunning,
    OpenDesktopW,
    EnumDesktopWindows,
    FindWindowW,
    SysPlaySoundW,
    MessageBeep,
    FlashWindow,
    GetUserNameW,
    GetFileInformationByHandle,
    WNetGetUniversalNameW,
};

std::atomic<const KvSystemApi*> g_pSystemApi{&g_defaultSystemApi};

} // namespace

const KvSystemApi& KvGetSystemApi()
{
    return *g_pSystemApi.load();
}

const KvSystemApi& KvDefaultSystemApi()
{
    return g_defaultSystemApi;
}

const KvSystemApi* KvSetSystemApi(const KvSystemApi* api)
{
    return g_pSystemApi.exchange(api != nullptr ? api : &g_defaultSystemApi);
}
