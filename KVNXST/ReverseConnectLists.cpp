#include "ReverseConnectLists.h"

#include "KvHandles.h"
#include "KvLogging.h"

#include <cwchar>
#include <string>

static log4cxx::LoggerPtr logger(KvGetLogger(KvLoggerName::ConnectToClientDialog));

const KvRememberedList kvReverseHosts = {
    L"Reverse Connection", L"Host %d", L"Host %d", L"Port %d", L"Last", L"Port", 6127, 6130, 6130, 2050};
const KvRememberedList kvReverseProxies = {L"Reverse Connection",
                                           L"Proxy %d",
                                           L"Proxy Host %d",
                                           L"Proxy Port %d",
                                           L"Proxy Last",
                                           L"Proxy Port",
                                           6127,
                                           6127,
                                           6127,
                                           2050};
const KvRememberedList kvInvitationProxies = {
    L"Invitations", L"Proxy %d", L"Proxy Host %d", L"Proxy Port %d", L"Proxy Last", L"Proxy Port", 6127, 6127,
    6127,           520};

namespace
{

constexpr int kLastIndex = 50;
constexpr std::size_t kPathUnits = 1025;

std::wstring KeyPath(const KvRememberedList& list)
{
    wchar_t szPath[kPathUnits] = {};
    _snwprintf_s(szPath, _TRUNCATE, L"Software\\Kestrova Development\\Vexa Remote Control\\%ls",
                 list.szSection);
    return szPath;
}

std::wstring EntryName(const wchar_t* szFormat, int n)
{
    wchar_t szName[64] = {};
    _snwprintf_s(szName, _TRUNCATE, szFormat, n);
    return szName;
}

// A string value of at most cbMax bytes into text. False when it is missing, longer or not a
// string; the last two are logged, as a hand-edited value may be behind them.
bool ReadText(HKEY hKey, const std::wstring& name, DWORD cbMax, std::wstring& text)
{
    // One unit more than the value may fill: a value stored without its terminator gets one.
    text.assign(cbMax / sizeof(wchar_t) + 1, L'\0');
    DWORD dwType = REG_NONE;
    DWORD cb = cbMax;
    const LONG lResult =
        RegQueryValueExW(hKey, name.c_str(), nullptr, &dwType, reinterpret_cast<BYTE*>(&text[0]), &cb);
    if (lResult == ERROR_FILE_NOT_FOUND)
        return false;
    if (lResult != ERROR_SUCCESS || dwType != REG_SZ)
    {
        LOG4CXX_WARN(logger, L"\"" << name << L"\" is not a string of at most " << cbMax << L" bytes (type "
                                   << dwType << L", result " << lResult << L").");
        return false;
    }
    text.resize(wcsnlen(text.c_str(), cb / sizeof(wchar_t)));
    return true;
}

// A 32-bit number value; dwValue stays as it was when the value is missing or is something else.
void ReadNumber(HKEY hKey, const std::wstring& name, DWORD& dwValue)
{
    DWORD dwType = REG_NONE;
    DWORD dwRead = 0;
    DWORD cb = sizeof dwRead;
    const LONG lResult =
        RegQueryValueExW(hKey, name.c_str(), nullptr, &dwType, reinterpret_cast<BYTE*>(&dwRead), &cb);
    if (lResult == ERROR_FILE_NOT_FOUND)
        return;
    if (lResult != ERROR_SUCCESS || dwType != REG_DWORD || cb != sizeof dwRead)
    {
        LOG4CXX_WARN(logger, L"\"" << name << L"\" is not a number (type " << dwType << L", result "
                                   << lResult << L"); the default is used.");
        return;
    }
    dwValue = dwRead;
}

// Without the terminator, as the list has always been stored.
bool WriteText(HKEY hKey, const std::wstring& name, const wchar_t* szText)
{
    const DWORD cb = static_cast<DWORD>(std::wcslen(szText) * sizeof(wchar_t));
    return RegSetValueExW(hKey, name.c_str(), 0, REG_SZ, reinterpret_cast<const BYTE*>(szText), cb) ==
           ERROR_SUCCESS;
}

bool WriteNumber(HKEY hKey, const std::wstring& name, DWORD dwValue)
{
    return RegSetValueExW(hKey, name.c_str(), 0, REG_DWORD, reinterpret_cast<const BYTE*>(&dwValue),
                          sizeof dwValue) == ERROR_SUCCESS;
}

void ShowPort(HWND hPort, DWORD dwPort)
{
    wchar_t szPort[16] = {};
    _snwprintf_s(szPort, _TRUNCATE, L"%d", static_cast<int>(dwPort));
    SetWindowTextW(hPort, szPort);
}

LRESULT AddItem(HWND hCombo, const wchar_t* szText, DWORD dwPort)
{
    const LRESULT nIndex = SendMessageW(hCombo, CB_ADDSTRING, 0, reinterpret_cast<LPARAM>(szText));
    if (nIndex >= 0)
        SendMessageW(hCombo, CB_SETITEMDATA, static_cast<WPARAM>(nIndex), static_cast<LPARAM>(dwPort));
    return nIndex;
}

LRESULT FindItem(HWND hCombo, const wchar_t* szText)
{
    return SendMessageW(hCombo, CB_FINDSTRINGEXACT, static_cast<WPARAM>(-1),
                        reinterpret_cast<LPARAM>(szText));
}

std::wstring ItemText(HWND hCombo, int nIndex)
{
    const LRESULT cch = SendMessageW(hCombo, CB_GETLBTEXTLEN, static_cast<WPARAM>(nIndex), 0);
    if (cch <= 0)
        return std::wstring();
    std::wstring text(static_cast<std::size_t>(cch) + 1, L'\0');
    const LRESULT cchRead =
        SendMessageW(hCombo, CB_GETLBTEXT, static_cast<WPARAM>(nIndex), reinterpret_cast<LPARAM>(&text[0]));
    text.resize(cchRead > 0 && cchRead <= cch ? static_cast<std::size_t>(cchRead) : 0);
    return text;
}

bool OpenKey(const KvRememberedList& list, KvRegKey& key)
{
    return RegOpenKeyExW(HKEY_CURRENT_USER, KeyPath(list).c_str(), 0, KEY_READ, key.Put()) == ERROR_SUCCESS;
}

bool CreateKey(const KvRememberedList& list, KvRegKey& key)
{
    const LONG lResult =
        RegCreateKeyExW(HKEY_CURRENT_USER, KeyPath(list).c_str(), 0, nullptr, REG_OPTION_NON_VOLATILE,
                        KEY_ALL_ACCESS, nullptr, key.Put(), nullptr);
    if (lResult != ERROR_SUCCESS)
        LOG4CXX_WARN(logger,
                     L"The key of \"" << list.szSection << L"\" cannot be created. Error = " << lResult);
    return lResult == ERROR_SUCCESS;
}

void LoadEntries(HKEY hKey, const KvRememberedList& list, HWND hCombo, HWND hPort)
{
    std::wstring text;
    // An empty entry is a gap left by an empty item; the first missing or unreadable one ends it.
    for (int n = 0; n <= kLastIndex && ReadText(hKey, EntryName(list.szItemRead, n), list.cbItemMax, text);
         ++n)
    {
        if (text.empty())
            continue;
        DWORD dwPort = list.dwItemPortRead;
        ReadNumber(hKey, EntryName(list.szItemPort, n), dwPort);
        AddItem(hCombo, text.c_str(), dwPort);
    }
    DWORD dwLastPort = list.dwLastPort;
    ReadNumber(hKey, list.szLastPort, dwLastPort);
    ShowPort(hPort, dwLastPort);
    if (!ReadText(hKey, list.szLast, list.cbItemMax, text) || text.empty())
        return;
    LRESULT nIndex = FindItem(hCombo, text.c_str());
    if (nIndex == CB_ERR)
        nIndex = AddItem(hCombo, text.c_str(), dwLastPort);
    SendMessageW(hCombo, CB_SETCURSEL, static_cast<WPARAM>(nIndex), 0);
}

void SaveEntries(HKEY hKey, const KvRememberedList& list, HWND hCombo, const wchar_t* szText, DWORD dwPort)
{
    // A known entry keeps the port it was first stored with.
    if (FindItem(hCombo, szText) == CB_ERR)
        AddItem(hCombo, szText, dwPort);
    const LRESULT nCount = SendMessageW(hCombo, CB_GETCOUNT, 0, 0);
    for (int n = 0; n <= kLastIndex && n < nCount; ++n)
    {
        const std::wstring item = ItemText(hCombo, n);
        if (item.empty())
            continue;
        const LRESULT nData = SendMessageW(hCombo, CB_GETITEMDATA, static_cast<WPARAM>(n), 0);
        const DWORD dwItemPort =
            nData == CB_ERR || nData == 0 ? list.dwItemPortWrite : static_cast<DWORD>(nData);
        WriteText(hKey, EntryName(list.szItemWrite, n), item.c_str());
        if (!WriteNumber(hKey, EntryName(list.szItemPort, n), dwItemPort))
        {
            LOG4CXX_WARN(logger, L"Writing \"" << EntryName(list.szItemPort, n)
                                               << L"\" failed; the list ends there.");
            break;
        }
    }
    if (*szText != L'\0')
        WriteText(hKey, list.szLast, szText);
    WriteNumber(hKey, list.szLastPort, dwPort);
}

void Enable(HWND hDlg, int nId, bool bEnable)
{
    EnableWindow(GetDlgItem(hDlg, nId), bEnable ? TRUE : FALSE);
}

} // namespace

bool KvLoadRememberedList(const KvRememberedList& list, HWND hCombo, HWND hPort)
{
    KvRegKey key;
    if (!OpenKey(list, key))
        return false;
    LoadEntries(key.Get(), list, hCombo, hPort);
    return true;
}

bool KvSaveRememberedList(const KvRememberedList& list, HWND hCombo, const wchar_t* szText, DWORD dwPort)
{
    KvRegKey key;
    if (!CreateKey(list, key))
        return false;
    SaveEntries(key.Get(), list, hCombo, szText, dwPort);
    return true;
}

bool KvLoadProxyList(const KvRememberedList& list, HWND hDlg, const KvProxyBoxes& boxes)
{
    KvRegKey key;
    if (!OpenKey(list, key))
        return false;
    LoadEntries(key.Get(), list, GetDlgItem(hDlg, boxes.nHost), GetDlgItem(hDlg, boxes.nPort));
    DWORD dwUseProxy = 0;
    ReadNumber(key.Get(), L"Use Proxy", dwUseProxy);
    if (dwUseProxy != 0)
    {
        CheckDlgButton(hDlg, boxes.nUseProxy, BST_CHECKED);
        Enable(hDlg, boxes.nHost, true);
        Enable(hDlg, boxes.nPort, true);
    }
    DWORD dwUseSecret = 0;
    ReadNumber(key.Get(), L"Use Proxy Secret", dwUseSecret);
    if (dwUseSecret != 0)
    {
        CheckDlgButton(hDlg, boxes.nUseSecret, BST_CHECKED);
        Enable(hDlg, boxes.nSecret, true);
    }
    return true;
}

bool KvSaveProxyList(const KvRememberedList& list, HWND hDlg, const KvProxyBoxes& boxes,
                     const wchar_t* szText, DWORD dwPort)
{
    KvRegKey key;
    if (!CreateKey(list, key))
        return false;
    SaveEntries(key.Get(), list, GetDlgItem(hDlg, boxes.nHost), szText, dwPort);
    WriteNumber(key.Get(), L"Use Proxy", IsDlgButtonChecked(hDlg, boxes.nUseProxy) == BST_CHECKED ? 1 : 0);
    WriteNumber(key.Get(), L"Use Proxy Secret",
                IsDlgButtonChecked(hDlg, boxes.nUseSecret) == BST_CHECKED ? 1 : 0);
    return true;
}
