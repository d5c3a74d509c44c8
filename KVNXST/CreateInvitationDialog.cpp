#include "CreateInvitationDialog.h"

#include "DialogPlaceholder.h"

static log4cxx::LoggerPtr logger(KvGetLogger(KvLoggerName::CreateInvitationDialog));

INT_PTR CALLBACK CreateInvitationWndProc(HWND hDlg, UINT uMsg, WPARAM /*wParam*/, LPARAM /*lParam*/)
{
    return KvDialogNotBuiltYet(logger, L"The invitation dialog", true, hDlg, uMsg);
}
