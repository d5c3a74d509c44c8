// Dialogs whose behaviour is not part of this build yet. The tray window opens them through their
// real templates and procedures, so the way there is exercised; the procedure says what is missing.
#pragma once

#include "KvLogging.h"

#include <windows.h>

// A dialog procedure body for such a dialog: logs at WARN once the dialog exists, ends a modal
// dialog at once with 0 and lets a modeless one be closed.
INT_PTR KvDialogNotBuiltYet(log4cxx::LoggerPtr& logger, const wchar_t* szDialog, bool bModal, HWND hDlg,
                            UINT uMsg);
