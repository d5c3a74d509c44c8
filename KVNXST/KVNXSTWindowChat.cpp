#include "KVNXSTWindowChat.h"

#include "KvLogging.h"

static log4cxx::LoggerPtr logger(KvGetLogger(KvLoggerName::KVNXSTWindowChat));

// The chat library is not part of this build yet; the messages are taken and logged.

void CChatWindow::Open()
{
    KvLogBlock logBlock(logger, L"CChatWindow::Open");
    LOG4CXX_WARN(logger, L"Chat is not built yet: no chat window opened.");
}

void CChatWindow::ShowMessage(const MSG_CHAT_MESSAGE& message)
{
    KvLogBlock logBlock(logger, L"CChatWindow::ShowMessage");
    LOG4CXX_WARN(logger,
                 L"Chat is not built yet: a message of " << message.dwMessageLength << L" bytes not shown.");
}

void CChatWindow::Close()
{
    KvLogBlock logBlock(logger, L"CChatWindow::Close");
    LOG4CXX_WARN(logger, L"Chat is not built yet: no chat window to close.");
}
