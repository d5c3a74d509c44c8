// The registry profile store against Wine's real registry. The agent reads texts only (its language,
// proved end to end in test_agent_e2e.cpp); numbers, binaries and storing a language have no
// caller in it yet and no tests of their own.
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
    ProfileRegTest() { m_profile.SetRootKey(HKEY_CURRENT_USER); }
    ~ProfileRegTest() override { RegDeleteTreeW(HKEY_CURRENT_USER, (L"Software\\" + m_vendor).c_str()); }

    std::wstring Path(const wchar_t* szSection = L"") const
    {
        return L"Software\\" + m_vendor + L"\\Product" + (*szSection ? L"\\" : L"") + szSection;
    }

    // Stores exactly these bytes in section "S": through ntdll, since RegSetValueExW under Wine
    // would add a terminator to a string.
    void SetRaw(const wchar_t* szName, DWORD dwType, const void* pData, ULONG cb)
    {
        using NtSetValueKeyFn = LONG(WINAPI*)(HANDLE, UNICODE_STRING*, ULONG, ULONG, const void*, ULONG);
        auto pfn = reinterpret_cast<NtSetValueKeyFn>(
            reinterpret_cast<void (*)()>(GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "NtSetValueKey")));
        HKEY hKey = nullptr;
        ASSERT_EQ(ERROR_SUCCESS, RegCreateKeyExW(HKEY_CURRENT_USER, Path(L"S").c_str(), 0, nullptr, 0,
                                                 KEY_ALL_ACCESS, nullptr, &hKey, nullptr));
        const USHORT cbName = static_cast<USHORT>(wcslen(szName) * 2);
        UNICODE_STRING name = {cbName, cbName, const_cast<wchar_t*>(szName)};
        EXPECT_EQ(0, pfn(hKey, &name, 0, dwType, pData, cb));
        RegCloseKey(hKey);
    }

    // The stored value's type; 0 when there is none.
    DWORD StoredType(const wchar_t* szSection, const wchar_t* szName) const
    {
        DWORD dwType = 0;
        RegGetValueW(HKEY_CURRENT_USER, Path(szSection).c_str(), szName, RRF_RT_ANY, &dwType, nullptr,
                     nullptr);
        return dwType;
    }

    const std::wstring m_vendor = L"KvTest-" + std::to_wstring(GetCurrentProcessId());
    CProfileReg m_profile{m_vendor.c_str(), L"Product"};
};

TEST_F(ProfileRegTest, TextRoundTripsAndAMissingOneGivesTheDefault)
{
    EXPECT_STREQ(L"fallback", m_profile.GetProfileString(L"Nowhere", L"Name", L"fallback"));
    EXPECT_STREQ(L"", m_profile.GetProfileString(L"Nowhere", L"Name", nullptr));
    ASSERT_TRUE(m_profile.WriteProfileString(L"S", L"Text", L"temp \u00e9\u4e2d"));
    EXPECT_STREQ(L"temp \u00e9\u4e2d", m_profile.GetProfileString(L"S", L"Text", L"default"));
}

TEST_F(ProfileRegTest, StringReadStopsAt1023Characters)
{
    // Stored with a terminator or without: either way 2,048 bytes must leave room for one.
    for (bool bTerminated : {true, false})
    {
        for (size_t cch : {1023u, 1024u})
        {
            const std::wstring text(cch, L'x');
            SetRaw(L"V", REG_SZ, text.c_str(), static_cast<ULONG>((cch + bTerminated) * 2));
            EXPECT_EQ(cch == 1023 ? text : L"default", m_profile.GetProfileString(L"S", L"V", L"default"))
                << cch << (bTerminated ? " terminated" : "");
        }
    }
    // A default longer than the buffer comes back cut, terminated.
    EXPECT_EQ(CProfileReg::kcchText - 1,
              wcslen(m_profile.GetProfileString(L"S", L"Missing", std::wstring(3000, L'd').c_str())));
}

TEST_F(ProfileRegTest, ValueOfTheWrongTypeGivesTheDefault)
{
    const DWORD dw = 0x00410041; // "AA" if taken for text
    SetRaw(L"Number", REG_DWORD, &dw, sizeof(dw));
    EXPECT_STREQ(L"default", m_profile.GetProfileString(L"S", L"Number", L"default"));
}

TEST_F(ProfileRegTest, NoTextOrNoNameDeletes)
{
    const BYTE blob[] = {1, 2};
    ASSERT_TRUE(m_profile.WriteProfileString(L"S", L"Name", L"value"));
    ASSERT_TRUE(m_profile.WriteProfileBinary(L"S", L"Blob", blob, sizeof(blob)));
    EXPECT_TRUE(m_profile.WriteProfileString(L"S", L"Name", nullptr));
    EXPECT_TRUE(m_profile.WriteProfileBinary(L"S", L"Blob", nullptr, 0));
    EXPECT_EQ(0u, StoredType(L"S", L"Name"));
    EXPECT_EQ(0u, StoredType(L"S", L"Blob"));

    // An empty name writes no unnamed value; it deletes that value, never the section around it.
    ASSERT_TRUE(m_profile.WriteProfileString(L"Empty", L"Kept", L"k"));
    ASSERT_EQ(ERROR_SUCCESS, RegSetKeyValueW(HKEY_CURRENT_USER, Path(L"Empty").c_str(), nullptr, REG_SZ,
                                             L"u", 4));
    EXPECT_TRUE(m_profile.WriteProfileString(L"Empty", L"", L"text"));
    EXPECT_EQ(static_cast<DWORD>(REG_SZ), StoredType(L"Empty", L"Kept"));
    EXPECT_EQ(0u, StoredType(L"Empty", L""));

    // Deleting what is not there fails with the registry's answer.
    for (const wchar_t* szSection : {L"S", L"NoSuchSection"})
    {
        EXPECT_FALSE(m_profile.WriteProfileString(szSection, L"Never", nullptr));
        EXPECT_EQ(static_cast<DWORD>(ERROR_FILE_NOT_FOUND), GetLastError());
    }
}

// Every operation the agent uses waits while another thread holds the lock: after a pause, an
// operation that did not take the lock has long finished.
TEST_F(ProfileRegTest, EveryOperationWaitsForTheLock)
{
    ASSERT_TRUE(m_profile.WriteProfileString(L"S", L"Text", L"held"));
    const std::vector<void (*)(CProfileReg&)> operations = {
        [](CProfileReg& p) { p.GetProfileString(L"S", L"Text", nullptr); },
        [](CProfileReg& p) { p.WriteProfileString(L"S", L"Text", L"other"); },
        [](CProfileReg& p) { p.SetRootKey(HKEY_CURRENT_USER); },
    };
    for (size_t i = 0; i < operations.size(); ++i)
    {
        std::atomic<bool> bDone{false};
        m_profile.Lock();
        const wchar_t* text = m_profile.GetProfileString(L"S", L"Text", nullptr);
        std::thread other([&] { operations[i](m_profile), bDone = true; });
        Sleep(150);
        EXPECT_FALSE(bDone) << "operation " << i << " ran while the lock was held";
        EXPECT_STREQ(L"held", text) << "the shared result buffer stayed ours";
        m_profile.Unlock();
        other.join();
        ASSERT_TRUE(m_profile.WriteProfileString(L"S", L"Text", L"held"));
    }
}

} // namespace
