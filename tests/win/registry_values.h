// A registry key of the current user as name → value, to set up, compare and put back.
#pragma once

#include <windows.h>

#include <map>
#include <string>

namespace kvtest
{

// A value as "#n" for a number, else the string (stored with its terminator, as the system adds one).
using RegistryValues = std::map<std::wstring, std::wstring>;

inline RegistryValues ReadRegistryValues(const wchar_t* szKey)
{
    RegistryValues values;
    HKEY hKey = nullptr;
    wchar_t szName[256], data[4096];
    DWORD cchName = 256, dwType = 0, cb = sizeof data;
    for (DWORD i = 0; (hKey != nullptr || RegOpenKeyExW(HKEY_CURRENT_USER, szKey, 0, KEY_READ, &hKey) == 0) &&
                      RegEnumValueW(hKey, i, szName, &cchName, nullptr, &dwType, (BYTE*)data, &cb) == 0;
         ++i, cchName = 256, cb = sizeof data)
        values[szName] = dwType == REG_DWORD ? L"#" + std::to_wstring(data[0] | DWORD(data[1]) << 16)
                                             : std::wstring(data, wcsnlen(data, cb / 2));
    RegCloseKey(hKey);
    return values;
}

// The key holding exactly these values (without any, no key).
inline void WriteRegistryValues(const wchar_t* szKey, const RegistryValues& values)
{
    RegDeleteTreeW(HKEY_CURRENT_USER, szKey);
    DWORD dw = 0;
    for (const auto& [name, v] : values)
        RegSetKeyValueW(HKEY_CURRENT_USER, szKey, name.c_str(), v[0] == L'#' ? REG_DWORD : REG_SZ,
                        v[0] == L'#' ? (const void*)&(dw = std::stoul(v.substr(1))) : v.data(),
                        v[0] == L'#' ? 4 : DWORD(v.size() * 2));
}

} // namespace kvtest
