// The tray window's side of the chat: the chat library's window, opened and fed on the service's
// messages.
#include "KVNXSTWindow.h"

#include "KvLogging.h"

static log4cxx::LoggerPtr logger(KvGetLogger(KvLoggerName::KVNXSTWindowChat));

// The chat library is not part of this build yet; the messages are taken and logged.

void CTaskBarWindow::OpenChatWindow()
{
    KvLogBlock logBlock(logger, L"CTaskBarWindow::OpenChatWindow");
    LOG4CXX_WARN(logger, L"Chat is not built yet: no chat window opened.");
}

void CTaskBarWindow::ShowChatMessage(const MSG_CHAT_MESSAGE* pMessage)
{
    KvLogBlock logBlock(logger, L"CTaskBarWindow::ShowChatMessage");
    LOG4CXX_WARN(logger, L"Chat is not built yet: a message of " << pMessage->dwMessageLength
                                                                 << L" bytes not shown.");
}

void CTaskBarWindow::CloseChatWindow()
{
    KvLogBlock logBlock(logger, L"CTaskBarWindow::CloseChatWindow");
    LOG4CXX_WARN(logger, L"Chat is not built yet: no chat window to close.");
}
