#include "ProfileReg.h"

#include "KvHandles.h"

#include <cstring>
#include <cwchar>

CProfileReg g_ProfileReg(L"Kestrova Development", L"Vexa Remote Control Service");

namespace
{

bool IsEmpty(const wchar_t* s)
{
    return s == nullptr || s[0] == L'\0';
}

// Bounded copy that always terminates.
void CopyText(wchar_t* szDest, size_t cchDest, const wchar_t* szSource)
{
    const size_t cch = std::wcslen(szSource);
    const size_t cchCopy = cch < cchDest ? cch : cchDest - 1;
    std::wmemcpy(szDest, szSource, cchCopy);
    szDest[cchCopy] = L'\0';
}

} // namespace

CProfileReg::CProfileReg(const wchar_t* szVendor, const wchar_t* szProduct) : m_hRootKey(HKEY_LOCAL_MACHINE)
{
    InitializeCriticalSection(&m_cs);
    CopyText(m_szVendor, kcchText, szVendor != nullptr ? szVendor : L"");
    CopyText(m_szProduct, kcchText, szProduct != nullptr ? szProduct : L"");
    m_szResult[0] = L'\0';
}

CProfileReg::~CProfileReg()
{
    DeleteCriticalSection(&m_cs);
}

void CProfileReg::Lock()
{
    EnterCriticalSection(&m_cs);
}

void CProfileReg::Unlock()
{
    LeaveCriticalSection(&m_cs);
}

void CProfileReg::SetRootKey(HKEY hRootKey)
{
    KvProfileRegLock lock(*this);
    m_hRootKey = hRootKey;
}

HKEY CProfileReg::GetRootKey()
{
    KvProfileRegLock lock(*this);
    return m_hRootKey;
}

bool CProfileReg::FormatKeyPath(wchar_t* szPath, const wchar_t* szSection) const
{
    const int n =
        IsEmpty(szSection)
            ? std::swprintf(szPath, kcchText, L"Software\\%ls\\%ls", m_szVendor, m_szProduct)
            : std::swprintf(szPath, kcchText, L"Software\\%ls\\%ls\\%ls", m_szVendor, m_szProduct, szSection);
    return n > 0 && static_cast<size_t>(n) < kcchText;
}

LONG CProfileReg::Read(const wchar_t* szSection, const wchar_t* szName, DWORD* pdwType, BYTE* pData,
                       DWORD* pcbData)
{
    KvProfileRegLock lock(*this);
    wchar_t szPath[kcchText];
    if (!FormatKeyPath(szPath, szSection))
        return ERROR_INVALID_PARAMETER;
    KvRegKey key;
    const LONG lResult = RegOpenKeyExW(m_hRootKey, szPath, 0, KEY_READ, key.Put());
    if (lResult != ERROR_SUCCESS)
        return lResult;
    return RegQueryValueExW(key.Get(), szName != nullptr ? szName : L"", nullptr, pdwType, pData, pcbData);
}

LONG CProfileReg::Write(const wchar_t* szSection, const wchar_t* szName, DWORD dwType, const BYTE* pData,
                        DWORD cbData)
{
    KvProfileRegLock lock(*this);
    wchar_t szPath[kcchText];
    if (!FormatKeyPath(szPath, szSection))
        return ERROR_INVALID_PARAMETER;
    KvRegKey key;
    const LONG lResult = RegCreateKeyExW(m_hRootKey, szPath, 0, nullptr, REG_OPTION_NON_VOLATILE,
                                         KEY_ALL_ACCESS, nullptr, key.Put(), nullptr);
    if (lResult != ERROR_SUCCESS)
        return lResult;
    return RegSetValueExW(key.Get(), szName != nullptr ? szName : L"", 0, dwType, pData, cbData);
}

int CProfileReg::GetProfileInt(const wchar_t* szSection, const wchar_t* szName, int nDefault)
{
    KvProfileRegLock lock(*this);
    DWORD dwType = 0;
    DWORD dwValue = 0;
    DWORD cb = sizeof(dwValue);
    const LONG lResult = Read(szSection, szName, &dwType, reinterpret_cast<BYTE*>(&dwValue), &cb);
    if (lResult != ERROR_SUCCESS || dwType != REG_DWORD || cb != sizeof(dwValue))
        return nDefault;
    return static_cast<int>(dwValue);
}

BOOL CProfileReg::WriteProfileInt(const wchar_t* szSection, const wchar_t* szName, int nValue)
{
    KvProfileRegLock lock(*this);
    const DWORD dwValue = static_cast<DWORD>(nValue);
    const LONG lResult =
        Write(szSection, szName, REG_DWORD, reinterpret_cast<const BYTE*>(&dwValue), sizeof(dwValue));
    SetLastError(static_cast<DWORD>(lResult));
    return lResult == ERROR_SUCCESS;
}

const wchar_t* CProfileReg::GetProfileString(const wchar_t* szSection, const wchar_t* szName,
                                             const wchar_t* szDefault)
{
    KvProfileRegLock lock(*this);
    std::memset(m_szResult, 0, sizeof(m_szResult));
    DWORD dwType = 0;
    DWORD cb = kcbStringRead;
    LONG lResult = Read(szSection, szName, &dwType, reinterpret_cast<BYTE*>(m_szResult), &cb);
    if (lResult == ERROR_SUCCESS && dwType != REG_SZ && dwType != REG_EXPAND_SZ)
        lResult = ERROR_INVALID_DATA;
    if (lResult == ERROR_SUCCESS)
    {
        // The value is stored with or without its terminator; either way there must be room for
        // one within the read limit.
        size_t cch = cb / sizeof(wchar_t);
        if (cch > 0 && m_szResult[cch - 1] == L'\0')
            --cch;
        if (cch >= kcbStringRead / sizeof(wchar_t))
            lResult = ERROR_MORE_DATA;
        else
            m_szResult[cch] = L'\0';
    }
    if (lResult != ERROR_SUCCESS)
    {
        m_szResult[0] = L'\0';
        if (szDefault != nullptr)
            CopyText(m_szResult, kcchText, szDefault);
    }
    return m_szResult;
}

BOOL CProfileReg::WriteProfileString(const wchar_t* szSection, const wchar_t* szName, const wchar_t* szText)
{
    KvProfileRegLock lock(*this);
    if (szText == nullptr || IsEmpty(szName))
        return Delete(szSection, szName);
    const size_t cch = std::wcslen(szText);
    const LONG lResult = Write(szSection, szName, REG_SZ, reinterpret_cast<const BYTE*>(szText),
                               static_cast<DWORD>(cch * sizeof(wchar_t)));
    SetLastError(static_cast<DWORD>(lResult));
    return lResult == ERROR_SUCCESS;
}

BOOL CProfileReg::GetProfileBinary(const wchar_t* szSection, const wchar_t* szName, BYTE* pData,
                                   DWORD* pcbData)
{
    KvProfileRegLock lock(*this);
    DWORD dwType = 0;
    const LONG lResult = Read(szSection, szName, &dwType, pData, pcbData);
    SetLastError(static_cast<DWORD>(lResult));
    return lResult == ERROR_SUCCESS;
}

BOOL CProfileReg::WriteProfileBinary(const wchar_t* szSection, const wchar_t* szName, const BYTE* pData,
                                     DWORD cbData)
{
    KvProfileRegLock lock(*this);
    if (pData == nullptr)
        return Delete(szSection, szName);
    const LONG lResult = Write(szSection, szName, REG_BINARY, pData, cbData);
    SetLastError(static_cast<DWORD>(lResult));
    return lResult == ERROR_SUCCESS;
}

BOOL CProfileReg::Delete(const wchar_t* szSection, const wchar_t* szName)
{
    KvProfileRegLock lock(*this);
    wchar_t szPath[kcchText];
    if (!FormatKeyPath(szPath, szSection))
    {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    KvRegKey key;
    LONG lResult = RegOpenKeyExW(m_hRootKey, szPath, 0, KEY_ALL_ACCESS, key.Put());
    if (lResult == ERROR_SUCCESS)
    {
        if (IsEmpty(szSection))
        {
            // Everything under the product's key, the key itself stays.
            lResult = RegDeleteTreeW(key.Get(), nullptr);
        }
        else
        {
            // No name is the section itself; an empty name is the section's unnamed value only.
            lResult = ERROR_FILE_NOT_FOUND;
            if (szName == nullptr || szName[0] != L'\0')
                lResult = RegDeleteKeyW(key.Get(), szName != nullptr ? szName : L"");
            if (lResult == ERROR_FILE_NOT_FOUND)
                lResult = RegDeleteValueW(key.Get(), szName != nullptr ? szName : L"");
        }
    }
    SetLastError(static_cast<DWORD>(lResult));
    return lResult == ERROR_SUCCESS;
}

KvRegistrySettingsStorage::KvRegistrySettingsStorage(const wchar_t* szSection, const wchar_t* szValueName)
    : m_section(szSection != nullptr ? szSection : L""),
      m_valueName(szValueName != nullptr ? szValueName : L"")
{
}

std::wstring KvRegistrySettingsStorage::GetLanguage()
{
    return ReadString(m_section.c_str(), m_valueName.c_str());
}

bool KvRegistrySettingsStorage::SetLanguage(const wchar_t* szCode)
{
    if (IsEmpty(szCode))
        return false;
    return WriteString(m_section.c_str(), m_valueName.c_str(), szCode);
}

KvCProfileRegStorage::KvCProfileRegStorage(CProfileReg* pProfile, const wchar_t* szValueName)
    : KvRegistrySettingsStorage(L"Settings", szValueName), m_pProfile(pProfile)
{
}

std::wstring KvCProfileRegStorage::ReadString(const wchar_t* szSection, const wchar_t* szName)
{
    if (m_pProfile == nullptr)
        return std::wstring();
    // Copied under the lock: the result buffer is shared by every string read of the profile.
    KvProfileRegLock lock(*m_pProfile);
    return m_pProfile->GetProfileString(szSection, szName, nullptr);
}

bool KvCProfileRegStorage::WriteString(const wchar_t* szSection, const wchar_t* szName, const wchar_t* szText)
{
    if (m_pProfile == nullptr)
        return false;
    return m_pProfile->WriteProfileString(szSection, szName, szText) != FALSE;
}
