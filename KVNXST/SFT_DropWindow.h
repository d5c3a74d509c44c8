// Simple file transfer on the agent's side: the temporary files the service asks for and the list
// of drop windows, one per viewer (the window itself is SFT_DropDialog).
#pragma once

#include "KvServiceMessages.h"

#include <windows.h>

#include <list>
#include <string>

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

    // The tray window, which makes the drop windows on its thread and hears when they close.
    void SetWindow(HWND hTrayWnd) { m_hTrayWnd = hTrayWnd; }
    // Opens the viewer's drop window; a second record for a viewer whose window is open closes it
    // instead. Runs on the connection thread.
    void SFT_AddDropWindow(const MSG_TRAYICON_SFT_DROP_CLIENT& drop);
    // Asks the drop window of the viewer (-1: every viewer's) to close; each one erases itself from
    // the list once it has closed. Runs on the connection thread.
    void SFT_RemoveDropWindow(int nViewerId);
    // Forgets the closed drop windows of the viewer (-1: all). Runs on the tray window's thread.
    void SFT_EraseDropWindow(int nViewerId);
    // Makes the window of a block that SFT_AddDropWindow put in the list. Tray window's thread.
    void CreateDropWindow(MSG_TRAYICON_SFT_DROP_CLIENT* pBlock);
    // Every drop window closes now and the list empties: the tray window is going.
    void CloseAllDropWindows();

private:
    std::wstring m_tempIni;
    std::wstring m_tempData;
    HWND m_hTrayWnd = nullptr;
    // A copy of each viewer's drop-client record, with the agent's fields filled in. Changed on
    // both threads, so every access holds the lock; no window message is sent while it is held.
    std::list<MSG_TRAYICON_SFT_DROP_CLIENT> m_dropWindows;
    SRWLOCK m_dropLock = SRWLOCK_INIT;
};
