#include "ValidateCertDialog.h"

#include "CertificateStore.h"
#include "DialogParts.h"
#include "KVNXSTWindow.h"
#include "KvHandles.h"
#include "KvLogging.h"
#include "ResourceText.h"
#include "resource.h"

// Its property sheet types come from here.
#include <prsht.h>

#include <cryptuiapi.h>

#include <cwchar>
#include <string>
#include <vector>

static log4cxx::LoggerPtr logger(KvGetLogger(KvLoggerName::ValidateCertDialog));

namespace
{

PCCERT_CONTEXT g_pDialogCert = nullptr;
KvScaledBanner g_banner;
KvGdiObject g_boldFont;
// Red when the certificate is out of its validity period or missing.
bool g_bWarning = false;

// Names come from whoever made the certificate: long enough to read, never without end.
constexpr std::size_t kShownNameMax = 260;

std::wstring Shown(std::wstring text)
{
    if (text.size() > kShownNameMax)
        text.replace(kShownNameMax - 1, std::wstring::npos, L"\x2026");
    return text;
}

std::wstring Format(UINT uFormatId, const wchar_t* szFirst, const wchar_t* szSecond = L"")
{
    std::vector<wchar_t> text(2048);
    _snwprintf_s(text.data(), text.size(), _TRUNCATE, KvLoadText(uFormatId).c_str(), szFirst, szSecond);
    return text.data();
}

// A validity bound in the user's own date and time format; empty when the system cannot show it.
std::wstring LocalTimeText(const FILETIME& time)
{
    SYSTEMTIME utc = {};
    SYSTEMTIME local = {};
    if (!FileTimeToSystemTime(&time, &utc) || !SystemTimeToTzSpecificLocalTime(nullptr, &utc, &local))
        return std::wstring();
    wchar_t szDate[128] = {};
    wchar_t szTime[64] = {};
    if (GetDateFormatW(LOCALE_USER_DEFAULT, DATE_LONGDATE, &local, nullptr, szDate, 128) == 0 ||
        GetTimeFormatW(LOCALE_USER_DEFAULT, TIME_NOSECONDS, &local, nullptr, szTime, 64) == 0)
        return std::wstring();
    return std::wstring(szDate) + L" " + szTime;
}

// The SHA-256 of the whole certificate as two lines of colon-separated pairs, the form people
// compare with what the other side reads out.
std::wstring Fingerprint(PCCERT_CONTEXT pCert)
{
    BYTE hash[32] = {};
    DWORD cbHash = sizeof hash;
    if (!CryptHashCertificate2(BCRYPT_SHA256_ALGORITHM, 0, nullptr, pCert->pbCertEncoded,
                               pCert->cbCertEncoded, hash, &cbHash) ||
        cbHash != sizeof hash)
    {
        LOG4CXX_WARN(logger,
                     L"The certificate's SHA-256 fingerprint cannot be computed. Error = " << GetLastError());
        return std::wstring();
    }
    std::wstring text;
    for (DWORD i = 0; i < cbHash; ++i)
    {
        wchar_t szPair[4] = {};
        _snwprintf_s(szPair, _TRUNCATE, L"%02X", hash[i]);
        text += szPair;
        if (i + 1 < cbHash)
            text += i == 15 ? L"\r\n" : L":";
    }
    return text;
}

// Issuer, validity and fingerprint, and the warning when the certificate cannot be valid now.
void ShowDetails(HWND hDlg, PCCERT_CONTEXT pCert)
{
    std::wstring warning;
    if (pCert == nullptr)
        warning = KvLoadText(IDS_CERT_NONE);
    else
    {
        wchar_t szIssuer[kShownNameMax + 2] = {};
        CertGetNameStringW(pCert, CERT_NAME_SIMPLE_DISPLAY_TYPE, CERT_NAME_ISSUER_FLAG, nullptr, szIssuer,
                           kShownNameMax + 2);
        const std::wstring from = LocalTimeText(pCert->pCertInfo->NotBefore);
        const std::wstring to = LocalTimeText(pCert->pCertInfo->NotAfter);
        SetDlgItemTextW(hDlg, IDC_CERT_ISSUER, Format(IDS_CERT_ISSUER_FMT, Shown(szIssuer).c_str()).c_str());
        const std::wstring details = Format(IDS_CERT_VALIDITY_FMT, from.c_str(), to.c_str()) + L"\r\n" +
                                     Format(IDS_CERT_FINGERPRINT_FMT, Fingerprint(pCert).c_str());
        SetDlgItemTextW(hDlg, IDC_CERT_DETAILS, details.c_str());
        const LONG nValidity = CertVerifyTimeValidity(nullptr, pCert->pCertInfo);
        if (nValidity < 0)
            warning = Format(IDS_CERT_NOT_YET_VALID_FMT, from.c_str());
        else if (nValidity > 0)
            warning = Format(IDS_CERT_EXPIRED_FMT, to.c_str());
        LOG4CXX_INFO(logger, L"nValidity=" << nValidity);
    }
    g_bWarning = !warning.empty();
    SetDlgItemTextW(hDlg, IDC_CERT_WARNING, warning.c_str());
}

// The name stands out in the dialog's own font, bold.
void UseBoldName(HWND hDlg)
{
    LOGFONTW font = {};
    const HGDIOBJ hDialogFont = reinterpret_cast<HGDIOBJ>(SendMessageW(hDlg, WM_GETFONT, 0, 0));
    if (hDialogFont == nullptr || GetObjectW(hDialogFont, sizeof font, &font) == 0)
        return;
    font.lfWeight = FW_BOLD;
    g_boldFont.Reset(CreateFontIndirectW(&font));
    if (g_boldFont)
        SendDlgItemMessageW(hDlg, IDC_CERT_NAME, WM_SETFONT, reinterpret_cast<WPARAM>(g_boldFont.Get()),
                            FALSE);
}

void OnInit(HWND hDlg, PCCERT_CONTEXT pCert)
{
    g_pDialogCert = pCert;
    g_banner.Apply(hDlg, logger);
    UseBoldName(hDlg);
    if (pCert != nullptr)
    {
        const std::wstring name = GetCertificateName();
        if (!name.empty())
            SetDlgItemTextW(hDlg, IDC_CERT_NAME, Shown(name).c_str());
    }
    ShowDetails(hDlg, pCert);
    // Enter must not trust a certificate by accident.
    SetFocus(GetDlgItem(hDlg, IDNO));
}

void OnView(HWND hDlg)
{
    if (g_pDialogCert == nullptr)
    {
        MessageBoxW(hDlg, KvLoadText(IDS_CERT_VIEW_ERROR).c_str(),
                    KvLoadText(IDS_CERT_VIEW_ERROR_CAPTION).c_str(), MB_OKCANCEL);
        LOG4CXX_ERROR(
            logger, L"Certificate context is null, cert hasn't been shown in CryptUIDlgViewContext dialog.");
        return;
    }
    if (!CryptUIDlgViewContext(CERT_STORE_CERTIFICATE_CONTEXT, g_pDialogCert, nullptr, nullptr, 0, nullptr))
        LOG4CXX_WARN(logger, L"CryptUIDlgViewContext failed. Error = " << GetLastError());
}

void OnYes(HWND hDlg)
{
    if (IsDlgButtonChecked(hDlg, IDC_CERT_REMEMBER) == BST_CHECKED)
    {
        if (g_pDialogCert != nullptr)
            SaveCertToRegistry(g_pDialogCert);
        else
            LOG4CXX_WARN(logger, L"Certificate not assigned, OK clicked - no cert hash is saved");
    }
    EndDialog(hDlg, IDYES);
}

} // namespace

INT_PTR CALLBACK ValidateCertProc(HWND hDlg, UINT uMsg, WPARAM wParam, LPARAM lParam)
{
    LOG4CXX_DEBUG(logger, L"iMsg=" << uMsg);
    switch (uMsg)
    {
    case WM_INITDIALOG:
        OnInit(hDlg, reinterpret_cast<PCCERT_CONTEXT>(lParam));
        return FALSE;
    case WM_COMMAND:
        switch (LOWORD(wParam))
        {
        case IDC_CERT_VIEW:
            OnView(hDlg);
            break;
        case IDYES:
            OnYes(hDlg);
            break;
        case IDNO:
            // Whoever waits on the question learns it was cancelled.
            PostMessageW(GetParent(hDlg), WM_KV_JOIN_SESSION_WAIT, 2, 0);
            EndDialog(hDlg, IDNO);
            break;
        case IDCANCEL: // Esc, as the close box
            EndDialog(hDlg, IDCANCEL);
            break;
        }
        return TRUE;
    case WM_CLOSE:
        EndDialog(hDlg, IDCANCEL);
        return TRUE;
    case WM_NOTIFY:
        KvOpenLinkOnNotify(hDlg, lParam, IDS_CERT_LINK_URL);
        return TRUE;
    case WM_CTLCOLORSTATIC:
        if (!g_bWarning || reinterpret_cast<HWND>(lParam) != GetDlgItem(hDlg, IDC_CERT_WARNING))
            return FALSE;
        SetTextColor(reinterpret_cast<HDC>(wParam), RGB(176, 0, 0));
        SetBkMode(reinterpret_cast<HDC>(wParam), TRANSPARENT);
        return reinterpret_cast<INT_PTR>(GetSysColorBrush(COLOR_BTNFACE));
    case WM_DESTROY:
        g_pDialogCert = nullptr;
        g_banner.Release();
        g_boldFont.Reset();
        return TRUE;
    default:
        return FALSE;
    }
}

bool ValidateCertDialog()
{
    KvLogBlock logBlock(logger, L"ValidateCertSession");
    GetCertFromACRegistry();
    PCCERT_CONTEXT pCert = GetCurrentCertificate();
    if (IsCertInRegistry(pCert))
    {
        LOG4CXX_INFO(logger, L"Certificate found in HKCU registry store.");
        return true;
    }
    const INT_PTR nResult =
        KvShowDialog(nullptr, IDD_VALIDATE_CERT, ValidateCertProc, reinterpret_cast<LPARAM>(pCert));
    LOG4CXX_INFO(logger, L"nResult=" << nResult);
    return nResult == IDYES;
}
