// Certificates made here by CryptoAPI: the store in process, the built agent's dialog by the UI driver.
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

// Self-signed, valid from one new year to another, each with a key of its own.
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

// The certificate key of the current user (0) and of two more user hives, cleared before and after.
struct Keys
{
    Keys() { Clear(); }
    ~Keys() { Clear(); }
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
        DWORD cb = 65536;
        const bool bRead =
            !RegGetValueW(HKEY_CURRENT_USER, kKey, szName, RRF_RT_REG_BINARY, nullptr, &data[0], &cb);
        return Bytes(data.begin(), data.begin() + (bRead ? cb : 0));
    }
    // Made if needed, then unreadable to everyone or readable again.
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
        for (size_t i = 0; i < 3; ++i)
        {
            Deny(i, false);
            RegDeleteTreeW(Root(i), i ? hives[i].c_str() : kKey);
            RegDeleteKeyW(Root(i), i ? hives[i].c_str() : kKey);
        }
    }
    const std::wstring hives[3] = {L"", L"S-1-5-21-kvtest-denied", L"S-1-5-21-kvtest-other"};
};

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

// Each row: the keys set up afresh, the certificate then current and a "level|message" logged.
TEST(PendingCertificate, CurrentUserFirstThenEachHiveInTurnAndBadValuesLeaveNone)
{
    Keys keys;
    const size_t denied = 1, other = 2;
    const Bytes mine = MakeCertificate(L"kvtest mine"), theirs = MakeCertificate(L"kvtest theirs");
    const Bytes large(10 * 1024 * 1024, 0x30), cut(mine.begin(), mine.end() - 10), none;
    // clang-format off
    const struct { std::function<bool()> setUp; const Bytes& current; std::string line; } rows[] = {
        {[&] { return keys.Pending(0, mine) && keys.Pending(other, theirs); }, mine,
         "DEBUG|GetCertFromACRegistry returning true"},
        // Read as the current user's and again as a hive's.
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
         "DEBUG|Registry key '" + Narrow(kKey) + "' open with result 5"}};
    // clang-format on
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

// Else it would be accepted merely by being presented.
TEST(AcceptedCertificate, ANameLikeThePendingValueIsNeverRemembered)
{
    Keys keys;
    ASSERT_TRUE(keys.Pending(0, MakeCertificate(L"A C")) && GetCertFromACRegistry());
    EXPECT_FALSE(IsCertInRegistry(GetCurrentCertificate()));
    EXPECT_FALSE(SaveCertToRegistry(GetCurrentCertificate()));
}

// A run of the agent a step, at a screen DPI that each process reads as it starts (the default after).
TEST(ValidateCert, OnlyAYesWithRememberIsRememberedForTheseVeryBytesAndTheDialogShowsWhatTheSystemReads)
{
    Keys keys;
    TestDesktop desktop;
    const kvui::ScreenDpi screen(96);
    const std::wstring name = L"kvtest server";
    const Bytes first = MakeCertificate(name), second = MakeCertificate(name), none;
    const Bytes old = MakeCertificate(name, 2001, 2002), early = MakeCertificate(name, 2090, 2099);
    // clang-format off
    enum { Yes, Remember, View, Close, Enter, Escape, Silent };
    const struct { DWORD dwDpi; const Bytes& pending; int answer; DWORD dwExit; int nResult; const Bytes& stored;
                   std::wstring warning; } steps[] = {
        {96, first, Yes, 0, IDYES, none, L""}, {144, first, Enter, 1, IDNO, none, L""},
        {144, old, View, 1, IDNO, none, L"This certificate expired on "},
        {120, early, Close, 1, IDCANCEL, none, L"This certificate is not valid before "},
        {96, first, Remember, 0, IDYES, first, L""}, {96, first, Silent, 0, 0, first, L""},
        // Same name, other bytes: asked again, and remembering replaces the first.
        {96, second, Remember, 0, IDYES, second, L""}, {96, first, Escape, 1, IDCANCEL, second, L""}};
    // clang-format on
    for (const auto& s : steps)
    {
        ASSERT_TRUE(keys.Pending(0, s.pending) && screen.Set(s.dwDpi));
        CertRun run(desktop);
        if (s.answer != Silent)
        {
            run.hDlg = run.Find(L"Certificate check");
            ASSERT_EQ(name, run.Text(IDC_CERT_NAME)) << run.folder.Log();
            EXPECT_EQ(L"Issued by: " + name, run.Text(IDC_CERT_ISSUER));
            EXPECT_EQ(0u, run.Text(IDC_CERT_WARNING).find(s.warning));
            RECT rc = {};
            GetWindowRect(GetDlgItem(run.hDlg, IDC_BANNER), &rc);
            EXPECT_EQ(s.dwDpi > 96 ? 90 : 60, rc.bottom - rc.top) << s.dwDpi << " DPI: bitmap 137 above 96";
        }
        bool bAnswered = true;
        if (s.answer == View)
        {
            // The system's viewer opens over the dialog, which stays and still answers.
            ASSERT_TRUE(kvui::ClickButton(run.hDlg, IDC_CERT_VIEW));
            const HWND hViewer = run.Find(L"", run.hDlg);
            EXPECT_TRUE(kvui::CloseWindow(hViewer) && kvui::WaitUntilGone(hViewer, kWait));
            bAnswered = kvui::ClickButton(run.hDlg, IDNO);
        }
        else if (s.answer == Enter || s.answer == Escape) // nobody is left to confirm the key
            kvui::PressKey(run.hDlg, IDC_CERT_REMEMBER, s.answer == Enter ? VK_RETURN : VK_ESCAPE);
        else if (s.answer == Close)
            bAnswered = kvui::CloseWindow(run.hDlg);
        else if (s.answer == Yes || s.answer == Remember)
            bAnswered = (s.answer == Yes || kvui::ClickButton(run.hDlg, IDC_CERT_REMEMBER)) &&
                        kvui::ClickButton(run.hDlg, IDYES);
        EXPECT_TRUE(bAnswered);
        EXPECT_TRUE(run.Ended(s.dwExit, s.nResult)) << run.folder.Log();
        EXPECT_EQ(s.stored, keys.Accepted(name.c_str()));
    }
}
