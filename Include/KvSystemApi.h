// The system functions through which the agent asks about its session, desktop and the machine,
// gathered in one table. The agent looks most of them up at run time, so it starts on systems that
// lack them; the table is also where a test gives the answers Wine cannot (another session, a
// locked console, a screen saver, a logoff that must not end the test's own session).
//
// Production has one table, filled with the entries below; a test installs its own table (usually
// a copy of KvDefaultSystemApi() with a few entries replaced) through KvScopedSystemApi.
//
// Looked-up entries behave like the system function when it is present. When the system lacks the
// library or the function, the entry fails the way the function fails (FALSE, or the stated value)
// and leaves ERROR_MOD_NOT_FOUND (126) or ERROR_PROC_NOT_FOUND (127) as the last error;
// KvIsMissingFunction() tells that apart from a call that failed. A test makes a function "missing"
// with an entry that does the same. Entries are never null.
#pragma once

#include <windows.h>
#include <winnetwk.h>
#include <wtsapi32.h>

struct KvSystemApi
{
    // --- wtsapi32.dll, looked up at run time: the thread's error mode 32769, LoadLibraryW("wtsapi32.dll"),
    // GetProcAddress, call, FreeLibrary, for every call.

    // WTSQuerySessionInformationW. Under Wine it fails.
    BOOL(WINAPI* pfnWTSQuerySessionInformationW)
    (HANDLE hServer, DWORD dwSessionId, WTS_INFO_CLASS infoClass, LPWSTR* ppBuffer, DWORD* pcbReturned);
    // Whether wtsapi32.dll exports szName, without calling it: FALSE with ERROR_MOD_NOT_FOUND or
    // ERROR_PROC_NOT_FOUND as the last error.
    BOOL (*pfnFindWTSFunction)(const char* szName);
    // WTSFreeMemory, for the buffers of the query and the enumeration. Does nothing when missing.
    void(WINAPI* pfnWTSFreeMemory)(PVOID pMemory);
    // WTSEnumerateSessionsW. Under Wine it lists no sessions.
    BOOL(WINAPI* pfnWTSEnumerateSessionsW)
    (HANDLE hServer, DWORD dwReserved, DWORD dwVersion, PWTS_SESSION_INFOW* ppSessionInfo, DWORD* pdwCount);
    // WTSRegisterSessionNotification and WTSUnRegisterSessionNotification, loaded by full path from
    // the system folder. Wine never sends the notifications.
    BOOL(WINAPI* pfnWTSRegisterSessionNotification)(HWND hWnd, DWORD dwFlags);
    BOOL(WINAPI* pfnWTSUnRegisterSessionNotification)(HWND hWnd);

    // --- Kernel32.dll, looked up at run time the same way.

    // ProcessIdToSessionId (real under Wine: session 1).
    BOOL(WINAPI* pfnProcessIdToSessionId)(DWORD dwProcessId, DWORD* pdwSessionId);
    // WTSGetActiveConsoleSessionId; 0xFFFFFFFF when there is no console session or it is missing.
    DWORD(WINAPI* pfnWTSGetActiveConsoleSessionId)();

    // --- ntdll.dll, looked up at run time: RtlGetVersion, which reports the true version whatever
    // the caller's manifest says. Returns 0 (STATUS_SUCCESS) on success; the record's size field
    // must be set by the caller.
    LONG(WINAPI* pfnRtlGetVersion)(OSVERSIONINFOEXW* pVersion);

    // --- user32.dll and shell32.dll.

    // LockWorkStation, looked up at run time in "user32.dll". Under Wine it fails.
    BOOL(WINAPI* pfnLockWorkStation)();
    // ExitWindowsEx, called directly. Under Wine it ends the whole Wine session: a test must
    // always replace it.
    BOOL(WINAPI* pfnExitWindowsEx)(UINT uFlags, DWORD dwReason);
    // GetForegroundWindow: where the lock's screen-saver fallback posts SC_SCREENSAVE.
    HWND(WINAPI* pfnGetForegroundWindow)();
    // IsUserAnAdmin, looked up at run time in "shell32.dll". Under Wine always TRUE.
    BOOL(WINAPI* pfnIsUserAnAdmin)();

    // --- Desktops and the screen saver. Under Wine the input desktop is always the caller's own
    // and there are no "Winlogon" or "Screen-saver" desktops.

    // Opens the input desktop (flags 0, not inherited, DESKTOP_READOBJECTS), reads its UOI_NAME
    // into szName (cchName units, 260 in the agent) and closes it again. FALSE when the desktop
    // cannot be opened or its name read; the last error says why.
    BOOL (*pfnGetInputDesktopName)(wchar_t* szName, DWORD cchName);
    // SystemParametersInfoW(SPI_GETSCREENSAVERRUNNING): the call's result, *pbRunning set to
    // whether a screen saver runs.
    BOOL (*pfnGetScreenSaverRunning)(BOOL* pbRunning);
    // OpenDesktopW, as KillScreenSaver uses it to reach the "Screen-saver" desktop.
    HDESK(WINAPI* pfnOpenDesktopW)(LPCWSTR lpszDesktop, DWORD dwFlags, BOOL fInherit, ACCESS_MASK dwAccess);
    // EnumDesktopWindows, as KillScreenSaver walks that desktop. Under Wine the windows of a desktop
    // that is not the input desktop never count as visible, so a test lists windows of its own.
    BOOL(WINAPI* pfnEnumDesktopWindows)(HDESK hDesktop, WNDENUMPROC lpfn, LPARAM lParam);
    // FindWindowW, as IsUserDesktopInitialized looks for the shell's taskbar. Every desktop under
    // Wine has one, so a test stands in for a shell that is not up yet.
    HWND(WINAPI* pfnFindWindowW)(LPCWSTR lpClassName, LPCWSTR lpWindowName);

    // --- Sounds and attention. Under Wine there are no sound aliases, and a beep or a flash
    // leaves nothing a test could observe.

    // PlaySoundW, looked up in "Winmm.DLL" at run time, loaded and freed for every call.
    BOOL(WINAPI* pfnPlaySoundW)(LPCWSTR pszSound, HMODULE hmod, DWORD fdwSound);
    BOOL(WINAPI* pfnMessageBeep)(UINT uType);
    BOOL(WINAPI* pfnFlashWindow)(HWND hWnd, BOOL bInvert);
    // GetUserNameW: the account the agent runs as (a service starts it as "SYSTEM").
    BOOL(WINAPI* pfnGetUserNameW)(LPWSTR lpBuffer, LPDWORD pcbBuffer);
    // --- Files. Wine cannot make a symbolic link or a junction and reports no reparse points, so
    // a test stands in for a temporary file that was replaced by one.
    BOOL(WINAPI* pfnGetFileInformationByHandle)(HANDLE hFile, LPBY_HANDLE_FILE_INFORMATION pInfo);
    // WNetGetUniversalNameW: Wine maps no drive letter to a network share, so a test stands in for
    // a mapped network drive.
    DWORD(WINAPI* pfnWNetGetUniversalNameW)
    (LPCWSTR lpLocalPath, DWORD dwInfoLevel, LPVOID lpBuffer, LPDWORD lpBufferSize);
};

// The table in use. Thread-safe to read; the entries are called from any thread.
const KvSystemApi& KvGetSystemApi();

// The production table: a test copies it and replaces the entries it needs.
const KvSystemApi& KvDefaultSystemApi();

// Installs api (nullptr: the production table) and returns the previous table. The table must
// outlive its use. Meant for tests; not for use while another thread is inside an entry.
const KvSystemApi* KvSetSystemApi(const KvSystemApi* api);

// True when the last error of a failed entry says the system lacks the function or its library.
inline bool KvIsMissingFunction(DWORD dwError)
{
    return dwError == ERROR_MOD_NOT_FOUND || dwError == ERROR_PROC_NOT_FOUND;
}

// Installs a table for the life of a scope and puts the previous one back:
//   KvSystemApi api = KvDefaultSystemApi();
//   api.pfnExitWindowsEx = FakeExitWindowsEx;
//   KvScopedSystemApi scoped(api);
class KvScopedSystemApi
{
public:
    explicit KvScopedSystemApi(const KvSystemApi& api) : m_pPrevious(KvSetSystemApi(&api)) {}
    ~KvScopedSystemApi() { KvSetSystemApi(m_pPrevious); }
    KvScopedSystemApi(const KvScopedSystemApi&) = delete;
    KvScopedSystemApi& operator=(const KvScopedSystemApi&) = delete;

private:
    const KvSystemApi* m_pPrevious;
};
