// The reverse connection to a listening viewer (dialog 132), modal; its parameter is the 70070 request it fills. Ends with 1 when the request is to be sent.
#pragma once

#include <windows.h>

INT_PTR CALLBACK ConnectToClient(HWND hDlg, UINT uMsg, WPARAM wParam, LPARAM lParam);
