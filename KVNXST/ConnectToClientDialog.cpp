#include "ConnectToClientDialog.h"

#include "KvLogging.h"
#include "KvServiceMessages.h"
#include "ResourceText.h"
#include "ReverseConnectLists.h"
#include "resource.h"

#include <cstdint>
#include <cwchar>
#include <string>
#include <iterator>

static log4cxx::LoggerPtr logger(KvGetLogger(KvLoggerName::ConnectToClientDialog));

namespace
{

// Typed hosts keep 1,024 characters; a remembered one may be a unit longer and still fits the field.
constexpr int kHostUnits = 1025;
constexpr int kPortUnits = 120;
constexpr int kSecretUnits = 260;
constexpr DWORD kHostPort = 6130;
constexpr DWORD kProxyPort = 6127;
constexpr UINT kSecretFontHeight = 14;

const KvProxyBoxes kProxyBoxes = {IDC_USE_PROXY, IDC_REVERSE_PROXY_HOST, IDC_REVERSE_PROXY_PORT,
                                  IDC_USE_PROXY_SECRET, IDC_PROXY_SECRET};

// One dialog at a time: the tray menu stays usable while it is open.
HWND g_hConnectDlg = nullptr;

MSG_REVERSE_CONNECTION* RequestOf(HWND hDlg)
{
    return reinterpret_cast<MSG_REVERSE_CONNECTION*>(GetWindowLongPtrW(hDlg, DWLP_USER));
}

bool Checked(HWND hDlg, int nId)
{
    return IsDlgButtonChecked(hDlg, nId) == BST_CHECKED;
}

void Enable(HWND hDlg, int nId, bool bEnable)
{
    EnableWindow(GetDlgItem(hDlg, nId), bEnable ? TRUE : FALSE);
}

void ShowPort(HWND hDlg, int nId, DWORD dwPort)
{
    wchar_t szPort[16] = {};
    _snwprintf_s(szPort, _TRUNCATE, L"%d", static_cast<int>(dwPort));
    SetDlgItemTextW(hDlg, nId, szPort);
}

// The leading digits, 0 when there are none; the port is not range-checked, as before.
DWORD LeadingNumber(const wchar_t* sz)
{
    DWORD dw = 0;
    for (; *sz >= L'0' && *sz <= L'9'; ++sz)
        dw = dw * 10 + static_cast<DWORD>(*sz - L'0');
    return dw;
}

// The bold fixed-pitch font sets the secret apart from the host names around it.
void SetSecretFont(HWND hDlg)
{
    HDC hdc = GetDC(hDlg);
    const int nDpi = hdc != nullptr ? GetDeviceCaps(hdc, LOGPIXELSY) : 96;
    if (hdc != nullptr)
        ReleaseDC(hDlg, hdc);
    HFONT hFont = CreateFontW(MulDiv(kSecretFontHeight, nDpi, 96), 0, 0, 0, FW_BOLD, FALSE, FALSE, FALSE,
                              DEFAULT_CHARSET, OUT_DEFAULT_PRECIS, CLIP_DEFAULT_PRECIS, DEFAULT_QUALITY,
                              FIXED_PITCH | FF_MODERN, L"Microsoft Sans Serif");
    if (hFont != nullptr)
        SendDlgItemMessageW(hDlg, IDC_PROXY_SECRET, WM_SETFONT, reinterpret_cast<WPARAM>(hFont), FALSE);
}

void DeleteSecretFont(HWND hDlg)
{
    HFONT hFont = reinterpret_cast<HFONT>(SendDlgItemMessageW(hDlg, IDC_PROXY_SECRET, WM_GETFONT, 0, 0));
    if (hFont == nullptr)
        return;
    SendDlgItemMessageW(hDlg, IDC_PROXY_SECRET, WM_SETFONT, 0, FALSE);
    DeleteObject(hFont);
}

void OnInitDialog(HWND hDlg, MSG_REVERSE_CONNECTION* pRequest)
{
    SetWindowLongPtrW(hDlg, DWLP_USER, reinterpret_cast<LONG_PTR>(pRequest));
    SetSecretFont(hDlg);
    SendDlgItemMessageW(hDlg, IDC_REVERSE_HOST, CB_LIMITTEXT, kHostUnits - 1, 0);
    SendDlgItemMessageW(hDlg, IDC_REVERSE_PROXY_HOST, CB_LIMITTEXT, kHostUnits - 1, 0);
    SendDlgItemMessageW(hDlg, IDC_REVERSE_PORT, EM_LIMITTEXT, kPortUnits - 1, 0);
    SendDlgItemMessageW(hDlg, IDC_REVERSE_PROXY_PORT, EM_LIMITTEXT, kPortUnits - 1, 0);
    SendDlgItemMessageW(hDlg, IDC_PROXY_SECRET, EM_LIMITTEXT, kSecretUnits - 1, 0);
    ShowPort(hDlg, IDC_REVERSE_PORT, kHostPort);
    ShowPort(hDlg, IDC_REVERSE_PROXY_PORT, kProxyPort);
    LoadHostList(GetDlgItem(hDlg, IDC_REVERSE_HOST), hDlg);
    LoadProxyList(GetDlgItem(hDlg, IDC_REVERSE_PROXY_HOST), hDlg);
    if (pRequest == nullptr || pRequest->uConnectOption != 0)
        return;
    // The service cannot go through a proxy: whatever was remembered, none is used.
    for (int nId : {IDC_USE_PROXY, IDC_USE_PROXY_SECRET})
    {
        CheckDlgButton(hDlg, nId, BST_UNCHECKED);
        Enable(hDlg, nId, false);
    }
}

// A combo's pick brings its remembered port along.
void OnSelectionEnd(HWND hDlg, int nCombo, int nPort, DWORD dwDefault)
{
    const LRESULT nIndex = SendDlgItemMessageW(hDlg, nCombo, CB_GETCURSEL, 0, 0);
    if (nIndex == CB_ERR)
        return;
    const LRESULT nData = SendDlgItemMessageW(hDlg, nCombo, CB_GETITEMDATA, static_cast<WPARAM>(nIndex), 0);
    ShowPort(hDlg, nPort, nData == CB_ERR || nData == 0 ? dwDefault : static_cast<DWORD>(nData));
}

void Refuse(HWND hDlg, UINT uText, int nFocus)
{
    MessageBoxW(hDlg, KvLoadText(uText).c_str(), KvLoadText(IDS_APP_CAPTION).c_str(),
                MB_OK | MB_ICONINFORMATION);
    SendMessageW(hDlg, WM_NEXTDLGCTL, reinterpret_cast<WPARAM>(GetDlgItem(hDlg, nFocus)), TRUE);
}

// The host as chosen or typed, without the backslashes that may come before a computer name.
void ReadHost(HWND hDlg, MSG_REVERSE_CONNECTION& request)
{
    HWND hCombo = GetDlgItem(hDlg, IDC_REVERSE_HOST);
    const LRESULT nIndex = SendMessageW(hCombo, CB_GETCURSEL, 0, 0);
    const LRESULT cchItem =
        nIndex == CB_ERR ? CB_ERR : SendMessageW(hCombo, CB_GETLBTEXTLEN, static_cast<WPARAM>(nIndex), 0);
    if (cchItem >= 0 && cchItem < static_cast<LRESULT>(std::size(request.szHost)))
        SendMessageW(hCombo, CB_GETLBTEXT, static_cast<WPARAM>(nIndex),
                     reinterpret_cast<LPARAM>(request.szHost));
    else
        GetWindowTextW(hCombo, KvWide(request.szHost), kHostUnits);
    std::size_t nSlashes = 0;
    while (request.szHost[nSlashes] == u'\\')
        ++nSlashes;
    if (nSlashes == 0)
        return;
    // Copied, not moved, so no stale units stay behind the shortened name.
    const std::u16string host = KvReadString(request.szHost).substr(nSlashes);
    KvCopyString(request.szHost, host);
    SetWindowTextW(hCombo, KvWide(request.szHost));
}

// Checks and fills the request in the order the user reads the boxes; false, with the user told
// and the box to fix focused, at the first that is missing.
bool FillRequest(HWND hDlg, MSG_REVERSE_CONNECTION& request)
{
    // An earlier refused attempt may have filled fields that are now shorter, or whose boxes have
    // since been cleared.
    KvCopyString(request.szHost, u"");
    request.bUseProxy = 0;
    request.dwProxyPort = 0;
    KvCopyString(request.szProxyHost, u"");
    KvCopyString(request.szProxySecret, u"");

    ReadHost(hDlg, request);
    if (request.szHost[0] == 0)
    {
        Refuse(hDlg, IDS_REVERSE_HOST_EMPTY, IDC_REVERSE_HOST);
        return false;
    }
    wchar_t szPort[kPortUnits] = {};
    if (GetDlgItemTextW(hDlg, IDC_REVERSE_PORT, szPort, kPortUnits) == 0)
    {
        Refuse(hDlg, IDS_REVERSE_PORT_EMPTY, IDC_REVERSE_PORT);
        return false;
    }
    request.dwPort = LeadingNumber(szPort);
    if (!Checked(hDlg, IDC_USE_PROXY))
        return true;

    // An empty proxy host is let through: the service reports what it cannot reach.
    GetDlgItemTextW(hDlg, IDC_REVERSE_PROXY_HOST, KvWide(request.szProxyHost), kHostUnits);
    request.bUseProxy = 1;
    if (Checked(hDlg, IDC_USE_PROXY_SECRET) &&
        GetDlgItemTextW(hDlg, IDC_PROXY_SECRET, KvWide(request.szProxySecret), kSecretUnits) == 0)
    {
        Refuse(hDlg, IDS_PROXY_SECRET_EMPTY, IDC_PROXY_SECRET);
        return false;
    }
    if (GetDlgItemTextW(hDlg, IDC_REVERSE_PROXY_PORT, szPort, kPortUnits) == 0)
    {
        Refuse(hDlg, IDS_PROXY_PORT_EMPTY, IDC_REVERSE_PROXY_PORT);
        return false;
    }
    request.dwProxyPort = LeadingNumber(szPort);
    return true;
}

void OnOk(HWND hDlg)
{
    MSG_REVERSE_CONNECTION* pRequest = RequestOf(hDlg);
    if (pRequest == nullptr)
    {
        LOG4CXX_WARN(logger, L"No request to fill.");
        EndDialog(hDlg, IDCANCEL);
        return;
    }
    if (!FillRequest(hDlg, *pRequest))
        return;
    SaveHostList(GetDlgItem(hDlg, IDC_REVERSE_HOST), KvWide(pRequest->szHost), pRequest->dwPort);
    // Also without a proxy, so the boxes' states are remembered.
    SaveProxyList(GetDlgItem(hDlg, IDC_REVERSE_PROXY_HOST), hDlg, KvWide(pRequest->szProxyHost),
                  pRequest->dwProxyPort);
    EndDialog(hDlg, IDOK);
}

void OnCommand(HWND hDlg, int nId, int nCode)
{
    switch (nId)
    {
    case IDC_REVERSE_HOST:
        if (nCode == CBN_SELENDOK)
            OnSelectionEnd(hDlg, IDC_REVERSE_HOST, IDC_REVERSE_PORT, kHostPort);
        break;
    case IDC_REVERSE_PROXY_HOST:
        if (nCode == CBN_SELENDOK)
            OnSelectionEnd(hDlg, IDC_REVERSE_PROXY_HOST, IDC_REVERSE_PROXY_PORT, kProxyPort);
        break;
    case IDC_USE_PROXY:
        Enable(hDlg, IDC_REVERSE_PROXY_HOST, Checked(hDlg, IDC_USE_PROXY));
        Enable(hDlg, IDC_REVERSE_PROXY_PORT, Checked(hDlg, IDC_USE_PROXY));
        break;
    case IDC_USE_PROXY_SECRET:
        Enable(hDlg, IDC_PROXY_SECRET, Checked(hDlg, IDC_USE_PROXY_SECRET));
        break;
    case IDC_REVERSE_DEFAULTS:
        ShowPort(hDlg, IDC_REVERSE_PORT, kHostPort);
        ShowPort(hDlg, IDC_REVERSE_PROXY_PORT, kProxyPort);
        CheckDlgButton(hDlg, IDC_USE_PROXY, BST_UNCHECKED);
        CheckDlgButton(hDlg, IDC_USE_PROXY_SECRET, BST_UNCHECKED);
        break;
    case IDOK:
        OnOk(hDlg);
        break;
    case IDCANCEL:
        EndDialog(hDlg, IDCANCEL);
        break;
    default:
        break;
    }
}

} // namespace

bool LoadHostList(HWND hCombo, HWND hDlg)
{
    KvLogBlock logBlock(logger, L"LoadHostList");
    return KvLoadRememberedList(kvReverseHosts, hCombo, GetDlgItem(hDlg, IDC_REVERSE_PORT));
}

bool SaveHostList(HWND hCombo, const wchar_t* szHost, DWORD dwPort)
{
    KvLogBlock logBlock(logger, L"SaveHostList");
    return KvSaveRememberedList(kvReverseHosts, hCombo, szHost, dwPort);
}

bool LoadProxyList(HWND /*hCombo*/, HWND hDlg)
{
    KvLogBlock logBlock(logger, L"LoadProxyList");
    return KvLoadProxyList(kvReverseProxies, hDlg, kProxyBoxes);
}

bool SaveProxyList(HWND /*hCombo*/, HWND hDlg, const wchar_t* szProxyHost, DWORD dwProxyPort)
{
    KvLogBlock logBlock(logger, L"SaveProxyList");
    return KvSaveProxyList(kvReverseProxies, hDlg, kProxyBoxes, szProxyHost, dwProxyPort);
}

INT_PTR CALLBACK ConnectToClient(HWND hDlg, UINT uMsg, WPARAM wParam, LPARAM lParam)
{
    KvLogBlock logBlock(logger, L"ConnectToClient");
    LOG4CXX_DEBUG(logger, L"iMsg=" << uMsg);
    switch (uMsg)
    {
    case WM_INITDIALOG:
        g_hConnectDlg = hDlg;
        OnInitDialog(hDlg, reinterpret_cast<MSG_REVERSE_CONNECTION*>(lParam));
        return TRUE;
    case WM_COMMAND:
        OnCommand(hDlg, LOWORD(wParam), HIWORD(wParam));
        return TRUE;
    case WM_CLOSE:
        EndDialog(hDlg, IDCANCEL);
        return TRUE;
    case WM_DESTROY:
        g_hConnectDlg = nullptr;
        DeleteSecretFont(hDlg);
        return TRUE;
    default:
        return FALSE;
    }
}

HWND KvConnectToClientDialog()
{
    return g_hConnectDlg;
}
