// The tray window's side of the chat: the chat library's window, opened and fed on the service's
// messages. The chat library is not part of this build yet, so there is no state to keep.
#pragma once

#include "KvServiceMessages.h"

class CChatWindow
{
public:
    void Open();
    void ShowMessage(const MSG_CHAT_MESSAGE& message);
    void Close();
};
