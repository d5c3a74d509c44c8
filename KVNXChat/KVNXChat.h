// KVNXChat.dll: the chat window of the tray agent. The agent loads the library from its own folder,
// creates one window, owned by the hidden tray window, and hands it each message a viewer sends;
// the window hands back each message the local user writes. Everything runs on the thread that
// created the window (the tray window's thread), whose message loop need not call
// IsDialogMessage: the library hooks that thread's messages for the window's keys while a window
// is open. The library may be freed only once its windows are gone.
//
// The window (template IDD_CHAT of the resource library) as other programs see it:
//   IDC_CHAT_TRANSCRIPT  owner-drawn list box, one item per message or notice, read with LB_GETTEXT:
//                          a message  "<author> (<local time, no seconds>)\r\n<text>"
//                          a notice   "<text>"  (e.g. that a message could not be sent)
//                        <author> is the viewer's name (IDS_CHAT_REMOTE_USER when the record
//                        names nobody) or IDS_CHAT_YOU for the local user; <text> is as shown,
//                        made fit by KvShowableText, its line breaks CR LF. Ctrl+C copies the
//                        selected items, CR LF between them. A new item is scrolled into view
//                        unless the reader has scrolled up to older ones; the local user's own
//                        always is.
//   IDC_CHAT_INPUT       the local user's text. Enter sends (also WM_KEYDOWN VK_RETURN posted
//                        from elsewhere), Shift+Enter or Ctrl+Enter starts a new line, Esc closes
//                        the window only while the box is empty.
//   IDC_CHAT_SEND        sends; disabled while the box holds only white space.
// A viewer's message while the window is not in the foreground makes it flash; nothing the
// library does takes the focus from another window.
#pragma once

#include "KvServiceMessages.h"

#include <windows.h>

// The three exports, looked up by these names.
extern "C"
{
    // A new chat window owned by hOwner, shown without taking the focus; null when it cannot be made.
    typedef HWND (*PFN_KVNX_CreateChatWindow)(HWND hOwner);
    // Appends one message a viewer wrote. pMessage is a whole record: the 528-byte head and
    // dwMessageLength bytes behind it, all readable; the window copies what it keeps. A null
    // record, another type id or a handle that is not a chat window is ignored.
    typedef void (*PFN_KVNX_AppendChatMessage)(HWND hChat, const MSG_CHAT_MESSAGE* pMessage);
    // Destroys the window (its owner is told, as when the user closes it). A handle that is not
    // a chat window of this library, or no longer a window, is left alone.
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
// Is the owner still there to take a message? The owner answers 1; asked before every
// WM_RC_CHAT_MESSAGE_SENT, and without that answer the message is not sent and stays in the box.
constexpr UINT WM_KV_CHAT_OWNER_ALIVE = WM_USER + 1064; // 2088
// The chat window is being destroyed (the user closed it, or KVNX_CloseChatWindow); wParam is the
// chat window.
constexpr UINT WM_KV_CHAT_WINDOW_GONE = WM_USER + 1065; // 2089
// The owner's resource library, for the window's texts and template: the owner answers this
// registered message with the library's HINSTANCE, or 0. Without an answer the window takes
// KVNXSTRES.dll from its own folder.
inline constexpr wchar_t KV_CHAT_RESOURCE_MODULE_MESSAGE[] = L"KVNXChat.ResourceModule";
