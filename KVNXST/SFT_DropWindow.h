// Simple file transfer on the agent's side: the temporary files the service asks for and one drop
// window per viewer (dialog 110).
#pragma once

#include "KvServiceMessages.h"

#include <windows.h>

#include <list>
#include <string>

INT_PTR CALLBACK SFTDropWndProc(HWND hDlg, UINT uMsg, WPARAM wParam, LPARAM lParam);

class CFileTransfer
{
public:
    CFileTransfer() = default;
    ~CFileTransfer();
    CFileTransfer(const CFileTransfer&) = delete;
    CFileTransfer& operator=(const CFileTransfer&) = delete;

    int CreateTempFiles(const MSG_TRAYICON_SFT_INIT_TEMP& init);
    void DeleteTempFile(unsigned int uTempFile);
    void AddDropWindow(const MSG_TRAYICON_SFT_DROP_CLIENT& drop);
    // nViewerId -1: every viewer's.
    void RemoveDropWindow(int nViewerId);
    void EraseDropWindow(int nViewerId);
    void DestroyDropWindow();

private:
    std::list<std::wstring> m_tempFiles;
    std::wstring m_tempIni;
    std::wstring m_tempData;
    HWND m_hDropWnd = nullptr;
};
