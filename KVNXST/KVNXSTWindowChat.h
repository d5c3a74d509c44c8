// The tray window's side of the chat: the chat library KVNXChat.dll, loaded from the agent's folder
// on first use, and its one window, which shows what the viewer writes. What the local user writes
// comes back to the tray window as WM_RC_CHAT_MESSAGE_SENT and goes to the service unchanged.
// Everything here runs on the tray window's thread.
#pragma once

#include "KVNXChat.h"
#include "KvHandles.h"
#include "KvServiceMessages.h"

#include <windows.h>

class CChatWindow
{
public:
    CChatWindow() = default;
    ~CChatWindow();
    CChatWindow(const CChatWindow&) = delete;
    CChatWindow& operator=(const CChatWindow&) = delete;

    // Loads the library and its three entries once; 1 when all three were found.
    int InitChatWindow();
    // Makes sure a chat window owned by hOwner exists and is in front, without taking the focus.
    void OpenChatWindow(HWND hOwner);
    // Opens the window if needed and appends the viewer's message (a whole record, the caller's).
    void ShowChatMessage(HWND hOwner, const MSG_CHAT_MESSAGE* pMessage);
    void CloseChatWindow();
    // The library says this window of its own is being destroyed.
    void ChatWindowGone(HWND hChat)
    {
        if (hChat == m_hChatWnd)
            m_hChatWnd = nullptr;
    }

private:
    KvModule m_hChatLibrary;
    PFN_KVNX_CreateChatWindow m_pfnCreateChatWindow = nullptr;
    PFN_KVNX_AppendChatMessage m_pfnAppendChatMessage = nullptr;
    PFN_KVNX_CloseChatWindow m_pfnCloseChatWindow = nullptr; // kept; the window is closed directly
    HWND m_hChatWnd = nullptr;
};
