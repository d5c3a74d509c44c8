#include "ConnectToClientDialog.h"

#include "DialogPlaceholder.h"

static log4cxx::LoggerPtr logger(KvGetLogger(KvLoggerName::ConnectToClientDialog));

INT_PTR CALLBACK ConnectToClient(HWND hDlg, UINT uMsg, WPARAM /*wParam*/, LPARAM /*lParam*/)
{
    return KvDialogNotBuiltYet(logger, L"The connect-to-client dialog", true, hDlg, uMsg);
}
