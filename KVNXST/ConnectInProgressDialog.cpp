#include "ConnectInProgressDialog.h"

#include "KVNXSTWindow.h"
#include "KvLogging.h"
#include "resource.h"

#include <commctrl.h>

static log4cxx::LoggerPtr logger(KvGetLogger(KvLoggerName::ConnectInProgressDialog));

INT_PTR CALLBACK ConnectInProgressProc(HWND hDlg, UINT uMsg, WPARAM wParam, LPARAM /*lParam*/)
{
    LOG4CXX_DEBUG(logger, L"iMsg=" << uMsg);
    switch (uMsg)
    {
    case WM_INITDIALOG:
        PostMessageW(GetDlgItem(hDlg, IDC_CONNECT_PROGRESS), PBM_SETMARQUEE, 1, 0);
        return TRUE;
    case WM_COMMAND:
        if (LOWORD(wParam) != IDCANCEL)
            return FALSE;
        // The tray window cancels the attempt with the service and destroys this window once the
        // service has answered.
        PostMessageW(GetParent(hDlg), WM_KV_JOIN_SESSION_WAIT, 2, 0);
        EndDialog(hDlg, 2);
        return TRUE;
    default:
        return FALSE;
    }
}
