// Creating, saving, copying and deleting invitations (dialog 115), modal; its parameter is the tray window.
#pragma once

#include <windows.h>

INT_PTR CALLBACK CreateInvitationWndProc(HWND hDlg, UINT uMsg, WPARAM wParam, LPARAM lParam);
