// The About box (dialog 106), modal; its parameter is the service's address block.
#pragma once

#include <windows.h>

INT_PTR CALLBACK AboutWndProc(HWND hDlg, UINT uMsg, WPARAM wParam, LPARAM lParam);
