// The wait dialog while the agent connects out (dialog 136), modeless.
#pragma once

#include <windows.h>

INT_PTR CALLBACK ConnectInProgressProc(HWND hDlg, UINT uMsg, WPARAM wParam, LPARAM lParam);
