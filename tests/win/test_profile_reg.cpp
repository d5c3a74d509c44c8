// The registry profile store and the language store over it, against Wine's real registry.
#include "ProfileReg.h"

#include <gtest/gtest.h>

#include <winternl.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

namespace
{

// Each test works under its own vendor key of HKCU, removed afterwards.
class ProfileRegTest : public ::testing::Test
{
protected:
    ProfileRegTest()
        : m_vendor(L"KvTest-" + std::to_wstring(GetCurrentProcessId()) + L"-" +
                   std::to_wstring(++s_nCounter)),
          m_profile(m_vendor.c_str(), L"Product")
    {
        m_profile.SetRootKey(HKEY_CURRENT_USER);
    }

    ~ProfileRegTest() override { RegDeleteTreeW(HKEY_CURRENT_USER, (L"Software\\" + m_vendor).c_str()); }

    std::wstring Path(const wchar_t* szSection = nullptr) const
    {
        std::wstring path = L"Software\\" + m_vendor + L"\\Product";
        if (szSection != nullptr)
            path += std::wstring(L"\\") + szSection;
        return path;
    }

    void SetRaw(const wchar_t* szSection, const wchar_t* szName, DWORD dwType, const void* pData, DWORD cb)
    {
        ASSERT_EQ(ERROR_SUCCESS,
                  RegSetKeyValueW(HKEY_CURRENT_USER, Path(szSection).c_str(), szName, dwType, pData, cb));
    }

    // A REG_SZ value set through ntdll, which, unlike RegSetValueExW, adds no terminator.
    void SetRawNative(const wchar_t* szSection, const wchar_t* szName, const wchar_t* pText, ULONG cb)
    {
        using NtSetValueKeyFn = LONG(WINAPI*)(HANDLE, UNICODE_STRING*, ULONG, ULONG, PVOID, ULONG);
        auto pfn = reinterpret_cast<NtSetValueKeyFn>(
            reinterpret_cast<void (*)()>(GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "NtSetValueKey")));
        ASSERT_NE(nullptr, pfn);
        HKEY hKey = nullptr;
        ASSERT_EQ(ERROR_SUCCESS, RegCreateKeyExW(HKEY_CURRENT_USER, Path(szSection).c_str(), 0, nullptr, 0,
                                                 KEY_ALL_ACCESS, nullptr, &hKey, nullptr));
        UNICODE_STRING name;
        name.Buffer = const_cast<wchar_t*>(szName);
        name.Length = static_cast<USHORT>(wcslen(szName) * 2);
        name.MaximumLength = name.Length;
        const LONG status = pfn(hKey, &name, 0, REG_SZ, const_cast<wchar_t*>(pText), cb);
        RegCloseKey(hKey);
        ASSERT_EQ(0, status);
        ASSERT_EQ(cb, Stored(szSection, szName).second);
    }

    // The stored value's type and size; 0 and 0 when there is none.
    std::pair<DWORD, DWORD> Stored(const wchar_t* szSection, const wchar_t* szName) const
    {
        DWORD dwType = 0;
        DWORD cb = 0;
        HKEY hKey = nullptr;
        if (RegOpenKeyExW(HKEY_CURRENT_USER, Path(szSection).c_str(), 0, KEY_READ, &hKey) != ERROR_SUCCESS)
            return {0, 0};
        if (RegQueryValueExW(hKey, szName, nullptr, &dwType, nullptr, &cb) != ERROR_SUCCESS)
            dwType = cb = 0;
        RegCloseKey(hKey);
        return {dwType, cb};
    }

    bool KeyExists(const std::wstring& path) const
    {
        HKEY hKey = nullptr;
        if (RegOpenKeyExW(HKEY_CURRENT_USER, path.c_str(), 0, KEY_READ, &hKey) != ERROR_SUCCESS)
            return false;
        RegCloseKey(hKey);
        return true;
    }

    static int s_nCounter;
    std::wstring m_vendor;
    CProfileReg m_profile;
};

int ProfileRegTest::s_nCounter = 0;

// --- Reads and their limits

TEST_F(ProfileRegTest, ValuesRoundTripAndMissingOnesGiveTheDefaults)
{
    EXPECT_EQ(-17, m_profile.GetProfileInt(L"Nowhere", L"Count", -17));
    EXPECT_STREQ(L"fallback", m_profile.GetProfileString(L"Nowhere", L"Name", L"fallback"));
    EXPECT_STREQ(L"", m_profile.GetProfileString(L"Nowhere", L"Name", nullptr));

    const BYTE blob[] = {0, 1, 2, 0xFE, 0xFF};
    ASSERT_TRUE(m_profile.WriteProfileInt(L"S", L"Int", -123456));
    ASSERT_TRUE(m_profile.WriteProfileString(L"S", L"Text", L"temp \u00e9\u4e2d"));
    ASSERT_TRUE(m_profile.WriteProfileBinary(L"S", L"Blob", blob, sizeof(blob)));
    EXPECT_EQ(std::make_pair(DWORD(REG_DWORD), DWORD(4)), Stored(L"S", L"Int"));
    EXPECT_EQ(static_cast<DWORD>(REG_SZ), Stored(L"S", L"Text").first);
    EXPECT_EQ(std::make_pair(DWORD(REG_BINARY), DWORD(sizeof(blob))), Stored(L"S", L"Blob"));

    EXPECT_EQ(-123456, m_profile.GetProfileInt(L"S", L"Int", 0));
    EXPECT_STREQ(L"temp \u00e9\u4e2d", m_profile.GetProfileString(L"S", L"Text", L"default"));
    BYTE read[16] = {};
    DWORD cb = sizeof(read);
    ASSERT_TRUE(m_profile.GetProfileBinary(L"S", L"Blob", read, &cb));
    EXPECT_EQ(0, memcmp(blob, read, sizeof(blob)));
    EXPECT_EQ(5, m_profile.GetProfileInt(L"S", L"Count", 5));
}

TEST_F(ProfileRegTest, StringReadStopsAt1023Characters)
{
    const std::wstring s1023(1023, L'x');
    const std::wstring s1024(1024, L'y');

    ASSERT_TRUE(m_profile.WriteProfileString(L"S", L"Fits", s1023.c_str()));
    EXPECT_EQ(s1023, m_profile.GetProfileString(L"S", L"Fits", L"default"));

    // Written by the store itself (the registry adds the terminator the store leaves out).
    ASSERT_TRUE(m_profile.WriteProfileString(L"S", L"TooLong", s1024.c_str()));
    EXPECT_STREQ(L"default", m_profile.GetProfileString(L"S", L"TooLong", L"default"));
    EXPECT_STREQ(L"", m_profile.GetProfileString(L"S", L"TooLong", nullptr));

    // Written by someone else with the terminator: 1,023 characters fit exactly, 1,024 do not.
    SetRaw(L"S", L"OtherFits", REG_SZ, s1023.c_str(), static_cast<DWORD>((s1023.size() + 1) * 2));
    EXPECT_EQ(s1023, m_profile.GetProfileString(L"S", L"OtherFits", L"default"));
    SetRaw(L"S", L"OtherTooLong", REG_SZ, s1024.c_str(), static_cast<DWORD>((s1024.size() + 1) * 2));
    EXPECT_STREQ(L"default", m_profile.GetProfileString(L"S", L"OtherTooLong", L"default"));

    // The native call stores exactly what it is given: 2,048 bytes without a terminator still hold
    // one character too many.
    SetRawNative(L"S", L"Native1024", s1024.c_str(), static_cast<ULONG>(s1024.size() * 2));
    EXPECT_STREQ(L"default", m_profile.GetProfileString(L"S", L"Native1024", L"default"));
    SetRawNative(L"S", L"Native1023", s1023.c_str(), static_cast<ULONG>(s1023.size() * 2));
    EXPECT_EQ(s1023, m_profile.GetProfileString(L"S", L"Native1023", L"default"));

    // A default longer than the buffer comes back cut, terminated.
    const std::wstring longDefault(3000, L'd');
    EXPECT_EQ(CProfileReg::kcchText - 1,
              wcslen(m_profile.GetProfileString(L"S", L"Missing", longDefault.c_str())));
}

TEST_F(ProfileRegTest, ValueOfTheWrongTypeGivesTheDefault)
{
    // 4 bytes, as long as a DWORD: only the type tells them apart.
    SetRaw(L"S", L"Short", REG_SZ, L"1", 4);
    EXPECT_EQ(42, m_profile.GetProfileInt(L"S", L"Short", 42));
    const BYTE eight[8] = {1, 0, 0, 0, 0, 0, 0, 0};
    SetRaw(L"S", L"Qword", REG_QWORD, eight, sizeof(eight));
    EXPECT_EQ(42, m_profile.GetProfileInt(L"S", L"Qword", 42));
    const DWORD dw = 0x00410041; // "AA" if taken for text
    SetRaw(L"S", L"Number", REG_DWORD, &dw, sizeof(dw));
    EXPECT_STREQ(L"default", m_profile.GetProfileString(L"S", L"Number", L"default"));
    // The binary read is raw: it takes any type.
    DWORD read = 0;
    DWORD cb = sizeof(read);
    EXPECT_TRUE(m_profile.GetProfileBinary(L"S", L"Number", reinterpret_cast<BYTE*>(&read), &cb));
    EXPECT_EQ(dw, read);
}

// --- Delete

TEST_F(ProfileRegTest, WriteWithoutTextOrNameDeletes)
{
    ASSERT_TRUE(m_profile.WriteProfileString(L"S", L"Name", L"value"));
    EXPECT_TRUE(m_profile.WriteProfileString(L"S", L"Name", nullptr));
    EXPECT_EQ(0u, Stored(L"S", L"Name").first);

    const BYTE blob[] = {1, 2};
    ASSERT_TRUE(m_profile.WriteProfileBinary(L"S", L"Blob", blob, sizeof(blob)));
    EXPECT_TRUE(m_profile.WriteProfileBinary(L"S", L"Blob", nullptr, 0));
    EXPECT_EQ(0u, Stored(L"S", L"Blob").first);

    // An empty name writes no unnamed value: it deletes the section itself.
    ASSERT_TRUE(m_profile.WriteProfileString(L"Empty", L"Gone", L"g"));
    EXPECT_TRUE(m_profile.WriteProfileString(L"Empty", L"", L"text"));
    EXPECT_FALSE(KeyExists(Path(L"Empty")));
    EXPECT_TRUE(KeyExists(Path()));

    // Deleting what is not there fails with the registry's answer.
    EXPECT_FALSE(m_profile.WriteProfileString(L"S", L"Never", nullptr));
    EXPECT_EQ(static_cast<DWORD>(ERROR_FILE_NOT_FOUND), GetLastError());
    EXPECT_FALSE(m_profile.WriteProfileString(L"NoSuchSection", L"Never", nullptr));
    EXPECT_EQ(static_cast<DWORD>(ERROR_FILE_NOT_FOUND), GetLastError());
}

TEST_F(ProfileRegTest, DeleteRemovesASubkeyBeforeAValueOfTheSameName)
{
    ASSERT_TRUE(m_profile.WriteProfileInt(L"S", L"Twin", 1));
    ASSERT_TRUE(m_profile.WriteProfileInt(L"S\\Twin", L"Inner", 2));

    ASSERT_TRUE(m_profile.Delete(L"S", L"Twin"));
    EXPECT_FALSE(KeyExists(Path(L"S\\Twin")));
    EXPECT_EQ(static_cast<DWORD>(REG_DWORD), Stored(L"S", L"Twin").first);

    // With the subkey gone, the name is a value's.
    ASSERT_TRUE(m_profile.Delete(L"S", L"Twin"));
    EXPECT_EQ(0u, Stored(L"S", L"Twin").first);
    EXPECT_TRUE(KeyExists(Path(L"S")));
}

TEST_F(ProfileRegTest, DeleteWithoutSectionEmptiesTheProductKey)
{
    ASSERT_TRUE(m_profile.WriteProfileInt(nullptr, L"Top", 1));
    ASSERT_TRUE(m_profile.WriteProfileInt(L"A", L"V", 1));
    ASSERT_TRUE(m_profile.WriteProfileInt(L"B\\C", L"V", 1));

    ASSERT_TRUE(m_profile.Delete(nullptr, nullptr));
    EXPECT_TRUE(KeyExists(Path()));
    EXPECT_FALSE(KeyExists(Path(L"A")));
    EXPECT_FALSE(KeyExists(Path(L"B")));
    EXPECT_EQ(0u, Stored(nullptr, L"Top").first);
}

// --- The lock

// Every operation waits while another thread holds the lock. The helper thread is let go after a
// pause; an operation that did not take the lock has finished long before.
TEST_F(ProfileRegTest, EveryOperationWaitsForTheLock)
{
    ASSERT_TRUE(m_profile.WriteProfileString(L"S", L"Text", L"held"));
    const std::vector<void (*)(CProfileReg&)> operations = {
        [](CProfileReg& p) { p.GetProfileInt(L"S", L"Int", 0); },
        [](CProfileReg& p) { p.WriteProfileInt(L"S", L"Int", 1); },
        [](CProfileReg& p) { p.GetProfileString(L"S", L"Text", nullptr); },
        [](CProfileReg& p) { p.WriteProfileString(L"S", L"Text", L"other"); },
        [](CProfileReg& p)
        {
            BYTE b[4];
            DWORD cb = sizeof(b);
            p.GetProfileBinary(L"S", L"Int", b, &cb);
        },
        [](CProfileReg& p) { p.WriteProfileBinary(L"S", L"Blob", reinterpret_cast<const BYTE*>("ab"), 2); },
        [](CProfileReg& p) { p.Delete(L"S", L"Blob"); },
        [](CProfileReg& p) { p.SetRootKey(HKEY_CURRENT_USER); },
    };
    for (size_t i = 0; i < operations.size(); ++i)
    {
        std::atomic<bool> bDone{false};
        m_profile.Lock();
        const wchar_t* text = m_profile.GetProfileString(L"S", L"Text", nullptr);
        std::thread other(
            [&]
            {
                operations[i](m_profile);
                bDone = true;
            });
        Sleep(150);
        EXPECT_FALSE(bDone) << "operation " << i << " ran while the lock was held";
        // The shared result buffer stayed ours.
        const std::wstring seen = text;
        m_profile.Unlock();
        other.join();
        EXPECT_TRUE(bDone);
        EXPECT_EQ(L"held", seen);
        ASSERT_TRUE(m_profile.WriteProfileString(L"S", L"Text", L"held"));
    }
}

// --- The process-wide profile and the language store

TEST(ProfileRegGlobalTest, ProcessProfileLivesUnderTheProductKey)
{
    g_ProfileReg.SetRootKey(HKEY_CURRENT_USER);
    const std::wstring section = L"KvTest-" + std::to_wstring(GetCurrentProcessId());
    ASSERT_TRUE(g_ProfileReg.WriteProfileInt(section.c_str(), L"V", 7));
    const std::wstring path = L"Software\\Kestrova Development\\Vexa Remote Control Service\\" + section;
    DWORD dw = 0;
    DWORD cb = sizeof(dw);
    EXPECT_EQ(ERROR_SUCCESS,
              RegGetValueW(HKEY_CURRENT_USER, path.c_str(), L"V", RRF_RT_REG_DWORD, nullptr, &dw, &cb));
    EXPECT_EQ(7u, dw);
    RegDeleteTreeW(HKEY_CURRENT_USER, path.c_str());
    RegDeleteKeyW(HKEY_CURRENT_USER, path.c_str());
}

TEST_F(ProfileRegTest, LanguageStoreKeepsTheCodeInSettingsLangUI)
{
    KvCProfileRegStorage storage(&m_profile);
    EXPECT_EQ(L"", storage.GetLanguage());

    EXPECT_TRUE(storage.SetLanguage(L"fr"));
    EXPECT_EQ(L"fr", storage.GetLanguage());
    EXPECT_STREQ(L"fr", m_profile.GetProfileString(L"Settings", L"LangUI", nullptr));

    // An empty code leaves the stored one alone.
    EXPECT_FALSE(storage.SetLanguage(L""));
    EXPECT_FALSE(storage.SetLanguage(nullptr));
    EXPECT_EQ(L"fr", storage.GetLanguage());

    // Another value name, same section.
    KvCProfileRegStorage other(&m_profile, L"LangOther");
    EXPECT_TRUE(other.SetLanguage(L"de"));
    EXPECT_EQ(L"de", other.GetLanguage());
    EXPECT_EQ(L"fr", storage.GetLanguage());

    // Without a profile there is nothing to read or write.
    KvCProfileRegStorage none(nullptr);
    EXPECT_FALSE(none.SetLanguage(L"en"));
    EXPECT_EQ(L"", none.GetLanguage());
}

} // namespace
