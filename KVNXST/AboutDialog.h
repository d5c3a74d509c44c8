// The About box (dialog 106), modal; its parameter is the service's settings block
// (MSG_TRAYICON_SETTINGS), which carries the information the box shows.
#pragma once

#include <windows.h>

#include <cstddef>

INT_PTR CALLBACK AboutWndProc(HWND hDlg, UINT uMsg, WPARAM wParam, LPARAM lParam);

// Puts the box's information text (control 1005), at most 4,095 units and a terminator, on the
// clipboard as Unicode text. 1 on success.
int CopyToClipboard(HWND hDlg);

// The file version of "KVNXS.exe" in the agent's folder into szVersion (cchVersion units, normally
// 260); nonzero when it was read.
int GetExeVersion(wchar_t* szVersion, std::size_t cchVersion);

// A string item of the agent's own version block ("LegalCopyright"); nonzero when it was read.
int GetModuleVersionString(const wchar_t* szItem, wchar_t* szValue, std::size_t cchValue);
