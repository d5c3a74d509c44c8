#include "DesktopOptions.h"

#include "KVNXSTWindow.h"
#include "KvLogging.h"
#include "KvSystemApi.h"
#include "UtilWTS.h"

#include <windows.h>

static log4cxx::LoggerPtr logger(KvGetLogger(KvLoggerName::DesktopOptions));

int Logoff(int bForce)
{
    KvLogBlock logBlock(logger, L"Logoff");
    LOG4CXX_INFO(logger, L"bForce=" << bForce);
    return KvGetSystemApi().pfnExitWindowsEx(bForce ? EWX_FORCE : EWX_LOGOFF, 0);
}

int LockWorkstation()
{
    KvLogBlock logBlock(logger, L"LockWorkstation");
    const KvSystemApi& api = KvGetSystemApi();
    if (api.pfnLockWorkStation())
        return 1;
    // No lock on this system: the screen saver, with its password if the user has one, stands in.
    LOG4CXX_INFO(logger, L"LockWorkStation failed, starting the screen saver. Error = " << GetLastError());
    HWND hForeground = api.pfnGetForegroundWindow();
    if (hForeground != nullptr)
        PostMessageW(hForeground, WM_SYSCOMMAND, SC_SCREENSAVE, 0);
    return 1;
}

namespace
{

// Session-only changes: the user's profile keeps the true settings, which the restore reads back.
constexpr UINT KV_SPI_SESSION = SPIF_SENDCHANGE;
constexpr wchar_t KV_DESKTOP_KEY[] = L"Control Panel\\Desktop";
constexpr DWORD KV_PROFILE_DATA_SIZE = 260; // bytes: a longer path is not read back

// The note an agent leaves while options are off, in a volatile key that goes at logoff.
constexpr wchar_t KV_NOTE_PARENT[] = L"Software\\Kestrova Development\\Vexa Remote Control";
constexpr wchar_t KV_NOTE_KEY[] = L"Software\\Kestrova Development\\Vexa Remote Control\\Session";
constexpr wchar_t KV_NOTE_VALUE[] = L"DesktopOptionsChanged";

struct DesktopOptionsNote
{
    DWORD dwChanged;
    DWORD dwProcessId; // the agent that changed them
};

BOOL SetEffect(const DesktopEffect& e, UINT uValue)
{
    if (e.bValueInUiParam)
        return SystemParametersInfoW(e.uSet, uValue, nullptr, KV_SPI_SESSION);
    return SystemParametersInfoW(e.uSet, 0, reinterpret_cast<PVOID>(static_cast<UINT_PTR>(uValue)),
                                 KV_SPI_SESSION);
}

// Reads a string of "Control Panel\Desktop" into sz (260 units); its size in bytes, or -1.
LONG ReadProfileString(HKEY hKey, const wchar_t* szName, wchar_t (&sz)[MAX_PATH])
{
    sz[0] = L'\0';
    DWORD cb = KV_PROFILE_DATA_SIZE, dwType = 0;
    const LONG lResult = RegQueryValueExW(hKey, szName, nullptr, &dwType, reinterpret_cast<BYTE*>(sz), &cb);
    if (lResult != ERROR_SUCCESS || (dwType != REG_SZ && dwType != REG_EXPAND_SZ))
    {
        LOG4CXX_DEBUG(logger, L"\"" << szName << L"\" not read. Error = " << lResult);
        return -1;
    }
    sz[MAX_PATH - 1] = L'\0';
    return static_cast<LONG>(cb);
}

bool ReadNote(DesktopOptionsNote& note)
{
    HKEY hKey = nullptr;
    if (RegOpenKeyExW(HKEY_CURRENT_USER, KV_NOTE_KEY, 0, KEY_QUERY_VALUE, &hKey) != ERROR_SUCCESS)
        return false;
    DWORD cb = sizeof note, dwType = 0;
    const LONG lResult =
        RegQueryValueExW(hKey, KV_NOTE_VALUE, nullptr, &dwType, reinterpret_cast<BYTE*>(&note), &cb);
    RegCloseKey(hKey);
    return lResult == ERROR_SUCCESS && dwType == REG_BINARY && cb == sizeof note;
}

// A note is ours to act on when this process wrote it or its writer has gone.
bool NoteIsOrphanedOrOwn(const DesktopOptionsNote& note)
{
    if (note.dwProcessId == GetCurrentProcessId())
        return true;
    HANDLE hProcess = OpenProcess(SYNCHRONIZE, FALSE, note.dwProcessId);
    if (hProcess == nullptr)
        return true;
    const bool bGone = WaitForSingleObject(hProcess, 0) != WAIT_TIMEOUT;
    CloseHandle(hProcess);
    return bGone;
}

void WriteNote(int nChanged)
{
    HKEY hParent = nullptr, hKey = nullptr;
    LONG lResult = RegCreateKeyExW(HKEY_CURRENT_USER, KV_NOTE_PARENT, 0, nullptr, REG_OPTION_NON_VOLATILE,
                                   KEY_CREATE_SUB_KEY, nullptr, &hParent, nullptr);
    if (lResult == ERROR_SUCCESS)
    {
        lResult = RegCreateKeyExW(hParent, L"Session", 0, nullptr, REG_OPTION_VOLATILE, KEY_SET_VALUE,
                                  nullptr, &hKey, nullptr);
        RegCloseKey(hParent);
    }
    if (lResult == ERROR_SUCCESS)
    {
        const DesktopOptionsNote note = {static_cast<DWORD>(nChanged), GetCurrentProcessId()};
        lResult = RegSetValueExW(hKey, KV_NOTE_VALUE, 0, REG_BINARY, reinterpret_cast<const BYTE*>(&note),
                                 sizeof note);
        RegCloseKey(hKey);
    }
    if (lResult != ERROR_SUCCESS)
        LOG4CXX_WARN(logger, L"The desktop options note cannot be written. Error = " << lResult);
}

void ClearNote()
{
    DesktopOptionsNote note = {};
    if (ReadNote(note) && NoteIsOrphanedOrOwn(note))
    {
        HKEY hKey = nullptr;
        if (RegOpenKeyExW(HKEY_CURRENT_USER, KV_NOTE_KEY, 0, KEY_SET_VALUE, &hKey) == ERROR_SUCCESS)
        {
            RegDeleteValueW(hKey, KV_NOTE_VALUE);
            RegCloseKey(hKey);
        }
    }
}

} // namespace

void CDesktopOptions::Set(int nOptions)
{
    KvLogBlock logBlock(logger, L"CDesktopOptions::Set");
    LOG4CXX_INFO(logger,
                 L"nOptions=" << nOptions << L" pending=" << m_uPending);
    if (m_uPending != 0)
        return;
    if (nOptions > 1)
        m_nOptions = nOptions;
    if (!IsUserDesktopInitialized())
    {
        // Changes made before the shell is up are lost when it starts: wait for its taskbar.
        m_uPending = SetTimer(m_hWnd, KV_TIMER_DESKTOP_POLL, 250, nullptr);
        return;
    }

    if ((nOptions & 0x0002) &&
        SystemParametersInfoW(SPI_SETDESKPATTERN, 0, const_cast<wchar_t*>(L""), KV_SPI_SESSION))
        m_nResets |= 0x0002;
    if (nOptions & 0x0004)
    {
        wchar_t szWallpaper[MAX_PATH] = {};
        if (SystemParametersInfoW(SPI_GETDESKWALLPAPER, MAX_PATH, szWallpaper, 0) &&
            szWallpaper[0] != L'\0' &&
            SystemParametersInfoW(SPI_SETDESKWALLPAPER, 0, const_cast<wchar_t*>(L""), KV_SPI_SESSION))
            m_nResets |= 0x0004;
    }
    for (const DesktopEffect& e : KV_EFFECTS)
    {
        DWORD dwValue = 0;
        // Only what is on is switched off, so only what the user had is restored.
        if ((nOptions & e.nBit) && SystemParametersInfoW(e.uGet, 0, &dwValue, 0) && dwValue != 0 &&
            SetEffect(e, 0))
            m_nResets |= e.nBit;
    }
    LOG4CXX_INFO(logger, L"m_nDesktopResets=" << m_nResets);
    if (m_nResets > 1)
        WriteNote(m_nResets);
}

void CDesktopOptions::Reapply()
{
    KvLogBlock logBlock(logger, L"CDesktopOptions::Reapply");
    if (m_nOptions > 1)
        Set(m_nOptions);
}

void CDesktopOptions::Restore()
{
    KvLogBlock logBlock(logger, L"CDesktopOptions::Restore");
    m_nOptions = 1;
    const int nChanged = m_nResets;
    LOG4CXX_INFO(logger, L"m_nDesktopResets=" << nChanged);
    if (nChanged <= 1)
        return;

    HKEY hKey = nullptr;
    const LONG lOpen = RegOpenKeyExW(HKEY_CURRENT_USER, KV_DESKTOP_KEY, 0, KEY_QUERY_VALUE, &hKey);
    if (lOpen != ERROR_SUCCESS)
    {
        LOG4CXX_WARN(logger, L"\"" << KV_DESKTOP_KEY << L"\" cannot be opened. Error = " << lOpen);
        hKey = nullptr;
    }
    wchar_t szValue[MAX_PATH] = {};
    for (const DesktopEffect& e : KV_EFFECTS)
    {
        if (!(nChanged & e.nBit))
            continue;
        // Font smoothing the user has off in the profile stays off.
        if (e.nBit == 0x0010 &&
            (hKey == nullptr || ReadProfileString(hKey, L"FontSmoothing", szValue) < 0 || szValue[0] == L'0'))
            continue;
        SetEffect(e, 1);
    }
    if ((nChanged & 0x0002) && hKey != nullptr && ReadProfileString(hKey, L"Pattern", szValue) >= 2)
        SystemParametersInfoW(SPI_SETDESKPATTERN, 0, szValue, KV_SPI_SESSION);
    if ((nChanged & 0x0004) && hKey != nullptr && ReadProfileString(hKey, L"Wallpaper", szValue) >= 2)
        SystemParametersInfoW(SPI_SETDESKWALLPAPER, 0, szValue, KV_SPI_SESSION);
    if (hKey != nullptr)
        RegCloseKey(hKey);
    ClearNote();
    m_nResets = 1;
}

void CDesktopOptions::Recover()
{
    KvLogBlock logBlock(logger, L"CDesktopOptions::Recover");
    DesktopOptionsNote note = {};
    if (!ReadNote(note) || !NoteIsOrphanedOrOwn(note))
        return;
    LOG4CXX_INFO(logger, L"Desktop options left off by process " << note.dwProcessId << L": mask "
                                                                 << note.dwChanged << L" restored.");
    m_nResets |= static_cast<int>(note.dwChanged);
    Restore();
}

void CDesktopOptions::OnTimer(UINT_PTR uTimer)
{
    if (uTimer == KV_TIMER_DESKTOP_POLL)
    {
        if (!IsUserDesktopInitialized())
            return;
        KillTimer(m_hWnd, uTimer);
        SetTimer(m_hWnd, KV_TIMER_DESKTOP_APPLY, 2500, nullptr);
        return;
    }
    KillTimer(m_hWnd, uTimer);
    m_uPending = 0;
    Set(m_nOptions);
}
