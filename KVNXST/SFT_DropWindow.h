// Simple file transfer on the agent's side: the temporary files the service asks for and one drop
// window per viewer (dialog 110).
#pragma once

#include "KvServiceMessages.h"

#include <windows.h>

#include <string>

INT_PTR CALLBACK SFTDropWndProc(HWND hDlg, UINT uMsg, WPARAM wParam, LPARAM lParam);

class CFileTransfer
{
public:
    CFileTransfer() = default;
    ~CFileTransfer();
    CFileTransfer(const CFileTransfer&) = delete;
    CFileTransfer& operator=(const CFileTransfer&) = delete;

    // The service's two temporary files, created new in the user's context and remembered in the
    // registry ("SFT:TempIni", "SFT:Data") so that a later agent knows them; 1 when both exist.
    // Runs on the connection thread.
    int SFT_CreateTempFiles(const MSG_TRAYICON_SFT_INIT_TEMP& init);
    // 1: the settings file, 2: the data file. Deleted securely; its registry value goes only once
    // the file has gone. Runs on the connection thread.
    void SFT_DeleteTempFile(unsigned int uTempFile);
    void AddDropWindow(const MSG_TRAYICON_SFT_DROP_CLIENT& drop);
    // nViewerId -1: every viewer's.
    void RemoveDropWindow(int nViewerId);
    void EraseDropWindow(int nViewerId);
    void DestroyDropWindow();

private:
    std::wstring m_tempIni;
    std::wstring m_tempData;
    HWND m_hDropWnd = nullptr;
};
