#include "JoinAttendedSessionDialog.h"

#include "DialogPlaceholder.h"

static log4cxx::LoggerPtr logger(KvGetLogger(KvLoggerName::JoinAttendedSessionDialog));

INT_PTR CALLBACK JoinAttendedSessionProc(HWND hDlg, UINT uMsg, WPARAM /*wParam*/, LPARAM /*lParam*/)
{
    return KvDialogNotBuiltYet(logger, L"The join-session dialog", true, hDlg, uMsg);
}
