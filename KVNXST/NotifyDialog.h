// The connect/disconnect notice beside the taskbar (dialog 102), modeless; lParam of its creation is the tray window.
#pragma once

#include <windows.h>

INT_PTR CALLBACK NotifyWndProc(HWND hDlg, UINT uMsg, WPARAM wParam, LPARAM lParam);
