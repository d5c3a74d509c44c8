#include "JoinAttendedSessionDialog.h"

#include "KVNXST.h"
#include "KVNXSTWindow.h"
#include "KvLogging.h"
#include "KvServiceMessages.h"
#include "ResourceText.h"
#include "resource.h"

#include <commctrl.h>
#include <shellapi.h>

#include <cwctype>

static log4cxx::LoggerPtr logger(KvGetLogger(KvLoggerName::JoinAttendedSessionDialog));

namespace
{

// One join dialog at a time: the tray window brings an open one to the front instead.
HWND g_hJoinDlg = nullptr;
MSG_REVERSE_CONNECTION* g_pJoinAttendedSession = nullptr;
HBITMAP g_hScaledBanner = nullptr;

// On a scaled screen the template's 96-DPI banner would be stretched by nobody: the larger one
// takes its place.
void UseScaledBanner(HWND hDlg)
{
    HDC hdc = GetDC(hDlg);
    const int nDpi = hdc != nullptr ? GetDeviceCaps(hdc, LOGPIXELSX) : 96;
    if (hdc != nullptr)
        ReleaseDC(hDlg, hdc);
    if (nDpi <= 96)
        return;
    g_hScaledBanner = static_cast<HBITMAP>(LoadImageW(
        KvResourceModule(), MAKEINTRESOURCEW(IDB_BITMAP_INTERNET_SESSION_BANNER), IMAGE_BITMAP, 0, 0, 0));
    if (g_hScaledBanner == nullptr)
    {
        LOG4CXX_WARN(logger, L"Failed to load IDB_BITMAP_INTERNET_SESSION_BANNER scale bitmap.");
        return;
    }
    const HGDIOBJ hOld = reinterpret_cast<HGDIOBJ>(SendDlgItemMessageW(
        hDlg, IDC_BANNER, STM_SETIMAGE, IMAGE_BITMAP, reinterpret_cast<LPARAM>(g_hScaledBanner)));
    if (hOld != nullptr && hOld != g_hScaledBanner)
        DeleteObject(hOld);
}

// Blanks and line breaks around a pasted code are not part of it.
void TrimInPlace(char16_t (&text)[8096])
{
    std::size_t nEnd = KvStringLength(text);
    std::size_t nStart = 0;
    while (nStart < nEnd && std::iswspace(static_cast<wint_t>(text[nStart])))
        ++nStart;
    while (nEnd > nStart && std::iswspace(static_cast<wint_t>(text[nEnd - 1])))
        --nEnd;
    for (std::size_t i = nStart; i < nEnd; ++i)
        text[i - nStart] = text[i];
    for (std::size_t i = nEnd - nStart; i < 8096; ++i)
        text[i] = 0;
}

void OnOk(HWND hDlg)
{
    if (g_pJoinAttendedSession == nullptr)
    {
        EndDialog(hDlg, 2);
        return;
    }
    g_pJoinAttendedSession->bShortReport = 1;
    GetDlgItemTextW(hDlg, IDC_JOIN_CODE, KvWide(g_pJoinAttendedSession->szShortText), 8096);
    TrimInPlace(g_pJoinAttendedSession->szShortText);
    if (g_pJoinAttendedSession->szShortText[0] != 0)
    {
        EndDialog(hDlg, 1);
        return;
    }
    MessageBoxW(hDlg, KvLoadText(IDS_JOIN_CODE_EMPTY).c_str(), KvLoadText(IDS_APP_CAPTION).c_str(),
                MB_OK | MB_ICONINFORMATION);
    SetFocus(GetDlgItem(hDlg, IDC_JOIN_CODE));
}

} // namespace

INT_PTR CALLBACK JoinAttendedSessionProc(HWND hDlg, UINT uMsg, WPARAM wParam, LPARAM lParam)
{
    LOG4CXX_DEBUG(logger, L"iMsg=" << uMsg);
    switch (uMsg)
    {
    case WM_INITDIALOG:
        g_hJoinDlg = hDlg;
        g_pJoinAttendedSession = reinterpret_cast<MSG_REVERSE_CONNECTION*>(lParam);
        if (g_pJoinAttendedSession == nullptr)
        {
            LOG4CXX_ERROR(logger, L"WM_INITDIALOG: pJoinAttendedSession is NULL");
            return TRUE;
        }
        SendDlgItemMessageW(hDlg, IDC_JOIN_CODE, EM_LIMITTEXT, 8095, 0);
        UseScaledBanner(hDlg);
        return TRUE;
    case WM_COMMAND:
        if (LOWORD(wParam) == IDOK)
            OnOk(hDlg);
        else if (LOWORD(wParam) == IDCANCEL)
            EndDialog(hDlg, 2);
        return TRUE;
    case WM_CLOSE:
    case WM_HIDE_JOIN_INTERNET_SESSION_DLG:
        EndDialog(hDlg, 2);
        return TRUE;
    case WM_NOTIFY:
    {
        const auto* pHeader = reinterpret_cast<const NMHDR*>(lParam);
        // A click, or Enter on the focused link.
        if (pHeader != nullptr && pHeader->idFrom == IDC_LINK &&
            (pHeader->code == NM_CLICK || pHeader->code == NM_RETURN))
            ShellExecuteW(hDlg, L"open", KvLoadText(IDS_JOIN_LINK_URL).c_str(), nullptr, nullptr,
                          SW_SHOWNORMAL);
        return TRUE;
    }
    case WM_CTLCOLORSTATIC:
        if (reinterpret_cast<HWND>(lParam) != GetDlgItem(hDlg, IDC_JOIN_NOTE))
            return FALSE;
        SetTextColor(reinterpret_cast<HDC>(wParam), GetSysColor(COLOR_GRAYTEXT));
        SetBkMode(reinterpret_cast<HDC>(wParam), TRANSPARENT);
        return reinterpret_cast<INT_PTR>(GetStockObject(NULL_BRUSH));
    case WM_DESTROY:
        g_hJoinDlg = nullptr;
        g_pJoinAttendedSession = nullptr;
        if (g_hScaledBanner != nullptr)
            DeleteObject(g_hScaledBanner);
        g_hScaledBanner = nullptr;
        return TRUE;
    default:
        return FALSE;
    }
}

HWND KvJoinDialog()
{
    return g_hJoinDlg;
}
