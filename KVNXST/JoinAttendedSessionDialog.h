// The session code of an attended internet session (dialog 134), modal; its parameter is the 70070
// request it fills. Ends with 1 when the request is to be sent, 2 when cancelled or withdrawn
// (WM_HIDE_JOIN_INTERNET_SESSION_DLG).
#pragma once

#include <windows.h>

INT_PTR CALLBACK JoinAttendedSessionProc(HWND hDlg, UINT uMsg, WPARAM wParam, LPARAM lParam);

// The open join dialog, or null.
HWND KvJoinDialog();
