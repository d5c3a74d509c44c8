// The question put to the user at the console when a viewer asks for a connection that needs
// consent. Runs in a child process of its own, started with "-Permission <port> <address family>",
// which exchanges 8,740-byte datagram records with the service on that port.
#pragma once

#include <windows.h>

// The dialog's countdown timer (one tick a second) and its length in seconds.
constexpr UINT_PTR KV_TIMER_PERMISSION_COUNTDOWN = 888;
constexpr int KV_PERMISSION_SECONDS = 120;

// Posted by the watcher thread when the service sends anything while the question is open.
constexpr UINT WM_KV_PERMISSION_WITHDRAWN = WM_USER + 11;

// Asks the service on nPort (address family nAfType) for the request, shows the dialog and sends
// the answer back. 1 when the dialog was shown, 0 otherwise (bad port, no exchange, nobody to ask).
int CreatePermissionDialog(int nPort, int nAfType);

// Starts the watcher on the service's socket for the dialog hDlg; the thread handle is not kept.
BOOL CreatePermissionThread(HWND hDlg);

INT_PTR CALLBACK PermissionWndProc(HWND hDlg, UINT uMsg, WPARAM wParam, LPARAM lParam);

// "DOMAIN\user" of the account that runs this process into szAccount (cchAccount units); the bare
// user name when the account cannot be looked up.
void GetConsoleAccount(wchar_t* szAccount, DWORD cchAccount);
