// Dialog keys (Tab, Esc, Enter, mnemonics) for modeless dialogs on a thread whose message loop does
// not call IsDialogMessage, as the agent's does not. While a dialog is attached, a WH_GETMESSAGE
// hook on its thread routes the keyboard messages of that dialog and its controls through
// IsDialogMessageW, and the message loop then sees WM_NULL in their place.
#pragma once

#include <windows.h>

// On the dialog's own thread; the first dialog of a thread installs the hook.
void KvAttachDialogKeys(HWND hDlg);
// From the dialog's WM_NCDESTROY at the latest; the last dialog of a thread removes the hook.
void KvDetachDialogKeys(HWND hDlg);
