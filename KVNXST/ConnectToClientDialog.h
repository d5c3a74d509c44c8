// The reverse connection to a listening viewer (dialog 132), modal; its parameter is the 70070 request it
// fills. Ends with 1 when the request is to be sent.
#pragma once

#include <windows.h>

INT_PTR CALLBACK ConnectToClient(HWND hDlg, UINT uMsg, WPARAM wParam, LPARAM lParam);

// The open dialog, or null.
HWND KvConnectToClientDialog();

// The dialog's remembered hosts and proxies (ReverseConnectLists.h); each is true when the key
// could be opened or created.
bool LoadHostList(HWND hCombo, HWND hDlg);
bool SaveHostList(HWND hCombo, const wchar_t* szHost, DWORD dwPort);
bool LoadProxyList(HWND hCombo, HWND hDlg);
bool SaveProxyList(HWND hCombo, HWND hDlg, const wchar_t* szProxyHost, DWORD dwProxyPort);
