// KVNXChat.dll: the chat window of the tray agent. The agent loads the library from its own folder,
// creates one window, owned by the hidden tray window, and hands it each message a viewer sends;
// the window hands back each message the local user writes. Everything runs on the thread that
// created the window (the tray window's thread).
#pragma once

#include "KvServiceMessages.h"

#include <windows.h>

// The three exports, looked up by these names.
extern "C"
{
    // A new chat window owned by hOwner, shown without taking the focus; null when it cannot be made.
    typedef HWND (*PFN_KVNX_CreateChatWindow)(HWND hOwner);
    // Appends one message a viewer wrote. pMessage is a whole record: the 528-byte head and
    // dwMessageLength bytes behind it, all readable; the window copies what it keeps.
    typedef void (*PFN_KVNX_AppendChatMessage)(HWND hChat, const MSG_CHAT_MESSAGE* pMessage);
    // Destroys the window (its owner is told, as when the user closes it).
    typedef void (*PFN_KVNX_CloseChatWindow)(HWND hChat);
}

inline constexpr char KVNX_CREATE_CHAT_WINDOW[] = "KVNX_CreateChatWindow";
inline constexpr char KVNX_APPEND_CHAT_MESSAGE[] = "KVNX_AppendChatMessage";
inline constexpr char KVNX_CLOSE_CHAT_WINDOW[] = "KVNX_CloseChatWindow";

// Sent by the chat window to its owner.
// The local user sent a message: wParam points to a whole MSG_CHAT_MESSAGE (id 75001, the
// user's name, dwMessageLength, the UTF-16LE text without terminator), lParam is its size in
// bytes. The buffer is the window's and valid for the call only.
constexpr UINT WM_RC_CHAT_MESSAGE_SENT = WM_USER + 1059; // 2083
// Is the owner still there to take a message? The owner answers 1.
constexpr UINT WM_KV_CHAT_OWNER_ALIVE = WM_USER + 1064; // 2088
// The chat window is being destroyed (the user closed it, or KVNX_CloseChatWindow).
constexpr UINT WM_KV_CHAT_WINDOW_GONE = WM_USER + 1065; // 2089
// The owner's resource library, for the window's texts and template: the owner answers this
// registered message with the library's HINSTANCE, or 0. Without an answer the window takes
// KVNXSTRES.dll from its own folder.
inline constexpr wchar_t KV_CHAT_RESOURCE_MODULE_MESSAGE[] = L"KVNXChat.ResourceModule";
