// The "-ValidateCert" mode: asks the user whether the pending certificate may be trusted
// (dialog 137). Yes ends it with 6, No with 7, the close box or Esc with 2.
#pragma once

#include <windows.h>

// True when the certificate is accepted (remembered before, or accepted in the dialog).
bool ValidateCertDialog();

// The dialog's procedure; its parameter is the certificate to judge, or null.
INT_PTR CALLBACK ValidateCertProc(HWND hDlg, UINT uMsg, WPARAM wParam, LPARAM lParam);
