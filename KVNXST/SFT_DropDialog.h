// The drop window of one viewer (dialog 110): the user drops files on it, or picks them with its
// "Choose files..." button, and they go to that viewer's transfer. It closes once the files are
// handed over, on its Close button or Esc, and when the tray window asks with 1038 (0, 0); on
// closing it reports 1038 (1001, viewer id) to the tray window.
#pragma once

#include <windows.h>

// Creation parameter: the drop-window list's MSG_TRAYICON_SFT_DROP_CLIENT block; the window keeps
// its own copy.
INT_PTR CALLBACK SFTDropWndProc(HWND hDlg, UINT uMsg, WPARAM wParam, LPARAM lParam);
