// Simple file transfer on the agent's side: the temporary files the service asks for and one drop
// window per viewer (dialog 110).
#pragma once

#include <windows.h>

INT_PTR CALLBACK SFTDropWndProc(HWND hDlg, UINT uMsg, WPARAM wParam, LPARAM lParam);
