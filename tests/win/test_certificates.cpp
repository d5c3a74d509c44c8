// Certificates: the store in this process against the real registry, and the built agent's
// "-ValidateCert" mode answered through the UI driver, all with certificates CryptoAPI makes here.
#include "test_agent_support.h"
#include "test_log_capture.h"

#include "CertificateStore.h"
#include "resource.h"

#include <gtest/gtest.h>

#include <functional>

using namespace kvtest;
using Bytes = std::vector<BYTE>;

namespace
{

constexpr wchar_t kKey[] = L"Software\\Kestrova Development\\Vexa Remote Control\\Crts";
constexpr DWORD kWait = 15000;

Bytes Of(PCCERT_CONTEXT p)
{
    return p ? Bytes(p->pbCertEncoded, p->pbCertEncoded + p->cbCertEncoded) : Bytes();
}

// Self-signed "CN=name", valid from the start of one year to the start of another, each with a key
// of its own.
Bytes MakeCertificate(const std::wstring& name, WORD wFrom = 2000, WORD wTo = 2099)
{
    BYTE subject[256];
    DWORD cb = sizeof subject;
    CertStrToNameW(X509_ASN_ENCODING, (L"CN=\"" + name + L"\"").c_str(), CERT_X500_NAME_STR, nullptr, subject,
                   &cb, nullptr);
    CERT_NAME_BLOB blob = {cb, subject};
    SYSTEMTIME from = {wFrom, 1, 0, 1, 0, 0, 0, 0}, to = {wTo, 1, 0, 1, 0, 0, 0, 0};
    PCCERT_CONTEXT p = CertCreateSelfSignCertificate(0, &blob, 0, nullptr, nullptr, &from, &to, nullptr);
    const Bytes der = Of(p);
    CertFreeCertificateContext(p);
    return der;
}

// The current user's certificate key (hive 0) and further user hives, cleared before and after.
struct Keys
{
    Keys() { Clear(); }
    ~Keys() { Clear(); }
    size_t AddHive()
    {
        hives.push_back(L"S-1-5-21-kvtest-" + std::to_wstring(GetCurrentProcessId()) + L"-" +
                        std::to_wstring(hives.size()));
        return hives.size() - 1;
    }
    HKEY Root(size_t i) const { return i ? HKEY_USERS : HKEY_CURRENT_USER; }
    std::wstring Path(size_t i) const { return i ? hives[i] + L"\\" + kKey : kKey; }
    bool Set(size_t i, DWORD dwType, const void* p, size_t cb) const
    {
        return !RegSetKeyValueW(Root(i), Path(i).c_str(), L"a c", dwType, p, static_cast<DWORD>(cb));
    }
    bool Pending(size_t i, const Bytes& der) const { return Set(i, REG_BINARY, der.data(), der.size()); }
    Bytes Accepted(const wchar_t* szName) const
    {
        Bytes data(65536);
        DWORD cb = static_cast<DWORD>(data.size());
        const LONG nResult =
            RegGetValueW(HKEY_CURRENT_USER, kKey, szName, RRF_RT_REG_BINARY, nullptr, data.data(), &cb);
        data.resize(nResult ? 0 : cb);
        return data;
    }
    // The hive's key, made if needed, unreadable to everyone or readable again.
    bool Deny(size_t i, bool bDeny = true) const
    {
        HKEY hKey = nullptr;
        ACL none = {ACL_REVISION, 0, sizeof(ACL), 0, 0};
        SECURITY_DESCRIPTOR sd;
        const bool bSet =
            !RegCreateKeyExW(Root(i), Path(i).c_str(), 0, nullptr, 0, WRITE_DAC, nullptr, &hKey, nullptr) &&
            InitializeSecurityDescriptor(&sd, SECURITY_DESCRIPTOR_REVISION) &&
            SetSecurityDescriptorDacl(&sd, TRUE, bDeny ? &none : nullptr, FALSE) &&
            !RegSetKeySecurity(hKey, DACL_SECURITY_INFORMATION, &sd);
        RegCloseKey(hKey);
        return bSet;
    }
    void Clear() const
    {
        for (size_t i = 0; i < hives.size(); ++i)
        {
            Deny(i, false);
            RegDeleteTreeW(Root(i), i ? hives[i].c_str() : kKey);
            RegDeleteKeyW(Root(i), i ? hives[i].c_str() : kKey);
        }
    }
    std::vector<std::wstring> hives{L""};
};

} // namespace

// Each row sets the keys up afresh: the bytes that become the current certificate (none: empty)
// and a line the store logs about it.
TEST(PendingCertificate, CurrentUserFirstThenEachHiveInTurnAndBadValuesLeaveNone)
{
    Keys keys;
    const size_t denied = keys.AddHive(), other = keys.AddHive();
    const Bytes mine = MakeCertificate(L"kvtest mine"), theirs = MakeCertificate(L"kvtest theirs");
    const Bytes large(10 * 1024 * 1024, 0x30), cut(mine.begin(), mine.end() - 10), none;
    const struct
    {
        std::function<bool()> setUp;
        const Bytes& current;
        std::string line; // "level|message"
    } rows[] = {
        {[&] { return keys.Pending(0, mine) && keys.Pending(other, theirs); }, mine,
         "DEBUG|GetCertFromACRegistry returning true"},
        // Read as the current user's and again as one of the hives, and the walk goes on.
        {[&] { return keys.Set(0, REG_SZ, L"x", 4) && keys.Pending(other, theirs); }, theirs,
         "ERROR|Requested value is not binary"},
        {[&] { return keys.Pending(denied, mine) && keys.Deny(denied) && keys.Pending(other, theirs); },
         theirs, "DEBUG|Registry key '" + Narrow(keys.Path(denied)) + "' open with result 5"},
        {[&] { return keys.Set(0, REG_BINARY, "", 0); }, none, "ERROR|Registry binary value is empty."},
        {[&] { return keys.Pending(0, large); }, none,
         "ERROR|Registry binary value is too large (10485760 bytes)."},
        {[&] { return keys.Pending(0, cut); }, none,
         "ERROR|Could not recreate certificate (Err " + std::to_string(static_cast<int>(CRYPT_E_ASN1_EOD)) +
             ") from a_c registry (" + std::to_string(cut.size()) + ")."},
        {[&] { return keys.Pending(0, mine) && keys.Deny(0); }, none,
         "DEBUG|Registry key '" + Narrow(kKey) + "' open with result 5"},
    };
    for (const auto& row : rows)
    {
        keys.Clear();
        ASSERT_TRUE(row.setUp()) << row.line;
        LogCapture log;
        EXPECT_EQ(!row.current.empty(), GetCertFromACRegistry()) << row.line;
        EXPECT_EQ(row.current, Of(GetCurrentCertificate())) << row.line;
        EXPECT_LE(1u, log.Count(row.line.substr(0, 5), "ValidateCertDialog", row.line.substr(6))) << row.line;
    }
}

// Remembered under its name, a certificate named like the pending value would be accepted merely by
// being presented.
TEST(AcceptedCertificate, ANameLikeThePendingValueIsNeverRemembered)
{
    Keys keys;
    ASSERT_TRUE(keys.Pending(0, MakeCertificate(L"A C")) && GetCertFromACRegistry());
    EXPECT_FALSE(IsCertInRegistry(GetCurrentCertificate()));
    EXPECT_FALSE(SaveCertToRegistry(GetCurrentCertificate()));
}

namespace
{

// The built agent's "-ValidateCert" mode on the test's desktop.
struct CertRun
{
    explicit CertRun(const TestDesktop& desktop)
        : desktopName(desktop.Name()), agent(folder.Start(L"C:\\cert.der -ValidateCert now", desktopName))
    {
    }
    // The agent's first dialog with this title other than hNot, once shown.
    HWND Find(const wchar_t* szTitle, HWND hNot = nullptr) const
    {
        for (const ULONGLONG end = GetTickCount64() + kWait; GetTickCount64() < end; Sleep(50))
            for (HWND h : kvui::FindWindows({L"#32770", szTitle, agent.Id(), desktopName, true}))
                if (h != hNot)
                    return h;
        return nullptr;
    }
    std::wstring Text(int nId) const { return kvui::ReadText(GetDlgItem(hDlg, nId)).value_or(L"?"); }
    // Ended with this code, and the dialog with nResult (0: none was shown).
    bool Ended(DWORD dwCode, int nResult) const
    {
        return agent.Wait(kWait) == dwCode &&
               CountMessage(Lines(folder.Log()), "INFO", "ValidateCertDialog",
                            nResult ? "nResult=" + std::to_string(nResult)
                                    : "Certificate found in HKCU registry store.") == 1;
    }

    const std::wstring desktopName;
    AgentFolder folder;
    AgentProcess agent;
    HWND hDlg = nullptr;
};

} // namespace

TEST(ValidateCert, OnlyAYesWithRememberIsRememberedAndOnlyForTheseVeryBytes)
{
    Keys keys;
    TestDesktop desktop;
    const Bytes first = MakeCertificate(L"kvtest server"), second = MakeCertificate(L"kvtest server"), none;
    enum
    {
        Yes,
        Remember,
        Close,
        Enter,
        Escape,
        Silent
    };
    // clang-format off
    const struct { const Bytes& pending; int answer; DWORD dwExit; int nResult; const Bytes& stored; } steps[] = {
        {first, Yes, 0, IDYES, none}, {first, Enter, 1, IDNO, none}, {first, Close, 1, IDCANCEL, none},
        {first, Remember, 0, IDYES, first}, {first, Silent, 0, 0, first},
        // Same name, other bytes: asked again, and remembering replaces the first.
        {second, Remember, 0, IDYES, second}, {first, Escape, 1, IDCANCEL, second}};
    // clang-format on
    for (const auto& s : steps)
    {
        ASSERT_TRUE(keys.Pending(0, s.pending));
        CertRun run(desktop);
        if (s.answer != Silent)
        {
            run.hDlg = run.Find(L"Certificate check");
            ASSERT_EQ(L"kvtest server", run.Text(IDC_CERT_NAME)) << run.folder.Log();
            // A key that ends the dialog leaves nobody to confirm it: the outcome tells.
            if (s.answer >= Enter)
                kvui::PressKey(run.hDlg, IDC_CERT_REMEMBER, s.answer == Enter ? VK_RETURN : VK_ESCAPE);
            else if (s.answer == Close)
                ASSERT_TRUE(kvui::CloseWindow(run.hDlg));
            else
                ASSERT_TRUE((s.answer == Yes || kvui::ClickButton(run.hDlg, IDC_CERT_REMEMBER)) &&
                            kvui::ClickButton(run.hDlg, IDYES));
        }
        EXPECT_TRUE(run.Ended(s.dwExit, s.nResult)) << run.folder.Log();
        EXPECT_EQ(s.stored, keys.Accepted(L"kvtest server"));
    }
}

// The rest of what the dialog shows comes from the system too. The banner test changes the screen's
// DPI, which each process reads as it starts; the prefix's setting is put back.
TEST(ValidateCert, BannerAndDetailsFollowTheScreenAndTheCertificateAndViewOpensTheViewer)
{
    Keys keys;
    TestDesktop desktop;
    const wchar_t* const szDesktop = L"Control Panel\\Desktop";
    const wchar_t kHex[] = L"0123456789ABCDEF";
    DWORD dwOld = 96, cb = sizeof dwOld;
    RegGetValueW(HKEY_CURRENT_USER, szDesktop, L"LogPixels", RRF_RT_REG_DWORD, nullptr, &dwOld, &cb);
    // clang-format off
    const struct { DWORD dwDpi; LONG nBannerHeight; Bytes der; const wchar_t* szWarning; } rows[] = {
        {144, 90, MakeCertificate(L"kvtest", 2001, 2002), L"This certificate expired on "},
        {120, 90, MakeCertificate(L"kvtest", 2090, 2099), L"This certificate is not valid before "},
        {96, 60, MakeCertificate(L"kvtest"), L""}}; // bitmap 137's height, the template's
    // clang-format on
    for (const auto& row : rows)
    {
        BYTE hash[32];
        DWORD cbHash = sizeof hash;
        ASSERT_TRUE(CryptHashCertificate2(BCRYPT_SHA256_ALGORITHM, 0, nullptr, row.der.data(),
                                          static_cast<DWORD>(row.der.size()), hash, &cbHash));
        ASSERT_TRUE(keys.Pending(0, row.der) &&
                    !RegSetKeyValueW(HKEY_CURRENT_USER, szDesktop, L"LogPixels", REG_DWORD, &row.dwDpi, 4));
        CertRun run(desktop);
        run.hDlg = run.Find(L"Certificate check");
        RECT rc = {};
        GetWindowRect(GetDlgItem(run.hDlg, IDC_BANNER), &rc);
        EXPECT_EQ(row.nBannerHeight, rc.bottom - rc.top) << row.dwDpi << " DPI\n" << run.folder.Log();
        const std::wstring details = run.Text(IDC_CERT_DETAILS);
        EXPECT_EQ(L"Issued by: kvtest", run.Text(IDC_CERT_ISSUER)) << run.folder.Log();
        EXPECT_EQ(0u, details.find(L"Valid from ")) << Narrow(details);
        std::wstring hex, shown;
        for (BYTE b : hash)
            hex += {kHex[b >> 4], kHex[b & 15]};
        for (wchar_t c : details.substr(details.find(L"SHA-256 fingerprint:") + 20))
            shown += iswxdigit(c) ? std::wstring(1, c) : L"";
        EXPECT_EQ(hex, shown);
        EXPECT_EQ(0u, run.Text(IDC_CERT_WARNING).find(row.szWarning));
        // The system's viewer opens over the dialog, which stays and still answers.
        ASSERT_TRUE(kvui::ClickButton(run.hDlg, IDC_CERT_VIEW));
        const HWND hViewer = run.Find(L"", run.hDlg);
        EXPECT_TRUE(kvui::CloseWindow(hViewer) && kvui::WaitUntilGone(hViewer, kWait));
        EXPECT_TRUE(kvui::ClickButton(run.hDlg, IDNO) && run.Ended(1, IDNO));
    }
    RegSetKeyValueW(HKEY_CURRENT_USER, szDesktop, L"LogPixels", REG_DWORD, &dwOld, sizeof dwOld);
}
