// Creating, saving, copying and deleting invitations (dialog 115), modal; its parameter is the tray window.
#pragma once

#include "KvServiceMessages.h"

#include <windows.h>

INT_PTR CALLBACK CreateInvitationWndProc(HWND hDlg, UINT uMsg, WPARAM wParam, LPARAM lParam);

// The service's datagram port on this machine, where invitations are made and deleted.
constexpr unsigned int KV_INVITATION_UDP_PORT = 6129;
// The longest invitation text taken from the service: what one datagram can carry.
constexpr DWORD KV_INVITATION_TEXT_MAX = 65507;

// Asks the service for an invitation and puts its text into the dialog's text box. True when a
// text came; a refusal is shown to the user, a silent or garbled service only logged.
bool CreateInvitationViaUDP(HWND hDlg, MSG_INVITATION_REQUEST* pRequest);
// Asks the service to drop every invitation and tells the user how many. True when it answered.
bool DeleteAllInvitations(HWND hDlg);

// The invitation text to the clipboard: as ANSI text, or written to a new ".inv" file in the
// Documents folder that is then put there as a dropped file.
bool CopyAsBlob(HWND hDlg);
bool CopyAsFile(HWND hDlg);
// Writes the invitation text to a new file the user picks; an existing file is never replaced.
bool SaveAsFile(HWND hDlg);
bool FileSaveAs(HWND hDlg, const wchar_t* szDefaultName, wchar_t* szPath, DWORD cchPath,
                DWORD* pnFilterIndex);
// The user's Documents folder, created when missing.
bool GetFolderPath(wchar_t* szPath, DWORD cchPath);
// The text box and the buttons that use it go together: usable only after a successful create.
void EnableCreateWindows(HWND hDlg, BOOL bEnable);

bool LoadInvitationProxyList(HWND hCombo, HWND hDlg);
bool SaveInvitationProxyList(HWND hCombo, HWND hDlg, const wchar_t* szProxyHost, DWORD dwProxyPort);
