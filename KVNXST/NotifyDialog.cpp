#include "NotifyDialog.h"

#include "DialogPlaceholder.h"

static log4cxx::LoggerPtr logger(KvGetLogger(KvLoggerName::NotifyDialog));

INT_PTR CALLBACK NotifyWndProc(HWND hDlg, UINT uMsg, WPARAM /*wParam*/, LPARAM /*lParam*/)
{
    return KvDialogNotBuiltYet(logger, L"The notification dialog", false, hDlg, uMsg);
}
