// The per-user profile store: values under "Software\<vendor>\<product>\<section>" of a root key,
// every access serialised, since the tray window's thread and the connection thread share it.
// The language store sits on top of it.
#pragma once

#include <windows.h>

#include <string>

// The profile operations, in this slot order. Note that <windows.h> maps GetProfileInt,
// GetProfileString and WriteProfileString to their W forms; the methods follow, consistently.
class IProfileReg
{
public:
    // The REG_DWORD read, or nDefault when the key or the value cannot be read.
    virtual int GetProfileInt(const wchar_t* szSection, const wchar_t* szName, int nDefault) = 0;
    // Writes a REG_DWORD; non-zero on success.
    virtual BOOL WriteProfileInt(const wchar_t* szSection, const wchar_t* szName, int nValue) = 0;
    // The string read, else szDefault, else "". Points into the object's result buffer, which the
    // next string read overwrites: copy it first (under Lock() when other threads read too).
    virtual const wchar_t* GetProfileString(const wchar_t* szSection, const wchar_t* szName,
                                            const wchar_t* szDefault) = 0;
    // Writes a REG_SZ without a terminator; with no text or an empty name, deletes the name instead.
    virtual BOOL WriteProfileString(const wchar_t* szSection, const wchar_t* szName,
                                    const wchar_t* szText) = 0;
    // The raw value into pData; *pcbData is the buffer's size on entry, the value's on return.
    virtual BOOL GetProfileBinary(const wchar_t* szSection, const wchar_t* szName, BYTE* pData,
                                  DWORD* pcbData) = 0;
    // Writes REG_BINARY; with no data, deletes the name instead.
    virtual BOOL WriteProfileBinary(const wchar_t* szSection, const wchar_t* szName, const BYTE* pData,
                                    DWORD cbData) = 0;

protected:
    ~IProfileReg() = default;
};

class CProfileReg : public IProfileReg
{
public:
    static constexpr size_t kcchText = 2048;
    // The string read takes at most this many bytes, so at most 1,023 characters come back.
    static constexpr DWORD kcbStringRead = 2048;

    CProfileReg(const wchar_t* szVendor, const wchar_t* szProduct);
    ~CProfileReg();
    CProfileReg(const CProfileReg&) = delete;
    CProfileReg& operator=(const CProfileReg&) = delete;

    int GetProfileInt(const wchar_t* szSection, const wchar_t* szName, int nDefault) override;
    BOOL WriteProfileInt(const wchar_t* szSection, const wchar_t* szName, int nValue) override;
    const wchar_t* GetProfileString(const wchar_t* szSection, const wchar_t* szName,
                                    const wchar_t* szDefault) override;
    BOOL WriteProfileString(const wchar_t* szSection, const wchar_t* szName, const wchar_t* szText) override;
    BOOL GetProfileBinary(const wchar_t* szSection, const wchar_t* szName, BYTE* pData,
                          DWORD* pcbData) override;
    BOOL WriteProfileBinary(const wchar_t* szSection, const wchar_t* szName, const BYTE* pData,
                            DWORD cbData) override;

    // The hive under which every path is opened (HKEY_LOCAL_MACHINE until set).
    void SetRootKey(HKEY hRootKey);
    HKEY GetRootKey();

    // With a section: removes the subkey szName of the section, or the value szName when no such
    // subkey exists. Without a section: empties "Software\<vendor>\<product>". Non-zero on success;
    // the last registry call's error stays in GetLastError().
    BOOL Delete(const wchar_t* szSection, const wchar_t* szName);

    // The object's lock, re-entrant; hold it to read a string and copy it in one step.
    void Lock();
    void Unlock();

private:
    bool FormatKeyPath(wchar_t* szPath, const wchar_t* szSection) const;
    LONG Read(const wchar_t* szSection, const wchar_t* szName, DWORD* pdwType, BYTE* pData, DWORD* pcbData);
    LONG Write(const wchar_t* szSection, const wchar_t* szName, DWORD dwType, const BYTE* pData,
               DWORD cbData);

    HKEY m_hRootKey;
    wchar_t m_szVendor[kcchText];
    wchar_t m_szProduct[kcchText];
    wchar_t m_szResult[kcchText];
    CRITICAL_SECTION m_cs;
};

// Holds a CProfileReg's lock for a scope.
class KvProfileRegLock
{
public:
    explicit KvProfileRegLock(CProfileReg& profile) : m_profile(profile) { m_profile.Lock(); }
    ~KvProfileRegLock() { m_profile.Unlock(); }
    KvProfileRegLock(const KvProfileRegLock&) = delete;
    KvProfileRegLock& operator=(const KvProfileRegLock&) = delete;

private:
    CProfileReg& m_profile;
};

// The process-wide profile: vendor "Kestrova Development", product "Vexa Remote Control Service".
// The entry point sets its root to HKEY_CURRENT_USER.
extern CProfileReg g_ProfileReg;

// Where the user-interface language code ("en", "fr", "de") is kept.
class ILanguageSettingsStorage
{
public:
    // The stored code; empty when none is stored.
    virtual std::wstring GetLanguage() = 0;
    // Stores a non-empty code; false when nothing was stored.
    virtual bool SetLanguage(const wchar_t* szCode) = 0;

protected:
    ~ILanguageSettingsStorage() = default;
};

// A language store kept as a string value of a registry section.
class KvRegistrySettingsStorage : public ILanguageSettingsStorage
{
public:
    std::wstring GetLanguage() override;
    bool SetLanguage(const wchar_t* szCode) override;

    const std::wstring& GetSection() const { return m_section; }
    const std::wstring& GetValueName() const { return m_valueName; }

protected:
    KvRegistrySettingsStorage(const wchar_t* szSection, const wchar_t* szValueName);
    ~KvRegistrySettingsStorage() = default;

    virtual std::wstring ReadString(const wchar_t* szSection, const wchar_t* szName) = 0;
    virtual bool WriteString(const wchar_t* szSection, const wchar_t* szName, const wchar_t* szText) = 0;

private:
    std::wstring m_section;
    std::wstring m_valueName;
};

// The language store over a CProfileReg: the value szValueName ("LangUI") of section "Settings".
class KvCProfileRegStorage : public KvRegistrySettingsStorage
{
public:
    explicit KvCProfileRegStorage(CProfileReg* pProfile, const wchar_t* szValueName = L"LangUI");
    virtual ~KvCProfileRegStorage() = default;

protected:
    std::wstring ReadString(const wchar_t* szSection, const wchar_t* szName) override;
    bool WriteString(const wchar_t* szSection, const wchar_t* szName, const wchar_t* szText) override;

private:
    CProfileReg* m_pProfile;
};
