#include "JoinAttendedSessionDialog.h"

#include "DialogParts.h"
#include "KVNXST.h"
#include "KVNXSTWindow.h"
#include "KvLogging.h"
#include "KvServiceMessages.h"
#include "ResourceText.h"
#include "resource.h"

#include <cwctype>

static log4cxx::LoggerPtr logger(KvGetLogger(KvLoggerName::JoinAttendedSessionDialog));

namespace
{

// One join dialog at a time: the tray window brings an open one to the front instead.
HWND g_hJoinDlg = nullptr;
MSG_REVERSE_CONNECTION* g_pJoinAttendedSession = nullptr;
KvScaledBanner g_banner;

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
        g_banner.Apply(hDlg, logger);
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
        KvOpenLinkOnNotify(hDlg, lParam, IDS_JOIN_LINK_URL);
        return TRUE;
    case WM_CTLCOLORSTATIC:
        if (reinterpret_cast<HWND>(lParam) != GetDlgItem(hDlg, IDC_JOIN_NOTE))
            return FALSE;
        SetTextColor(reinterpret_cast<HDC>(wParam), GetSysColor(COLOR_GRAYTEXT));
        SetBkMode(reinterpret_cast<HDC>(wParam), TRANSPARENT);
        return reinterpret_cast<INT_PTR>(GetStockObject(NULL_BRUSH));
    case WM_DESTROY:
        g_hJoinDlg = nullptr;
        g_pJoinAttendedSession = nullptr;
        g_banner.Release();
        return TRUE;
    default:
        return FALSE;
    }
}

HWND KvJoinDialog()
{
    return g_hJoinDlg;
}
