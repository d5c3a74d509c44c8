#include "ConnectInProgressDialog.h"

#include "DialogPlaceholder.h"

static log4cxx::LoggerPtr logger(KvGetLogger(KvLoggerName::ConnectInProgressDialog));

INT_PTR CALLBACK ConnectInProgressProc(HWND hDlg, UINT uMsg, WPARAM /*wParam*/, LPARAM /*lParam*/)
{
    return KvDialogNotBuiltYet(logger, L"The connect-in-progress dialog", false, hDlg, uMsg);
}
