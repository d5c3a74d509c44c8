#include "KvLogging.h"

#include "KvLogText.h"

#include <windows.h>

#include <log4cxx/mdc.h>

log4cxx::LoggerPtr KvGetLogger(const char* name)
{
    return log4cxx::Logger::getLogger(name);
}

// Logging must never fail its caller: whatever goes wrong here (out of memory, an appender that
// throws) leaves the block without a name and the traced function unaffected.
void KvLogBlock::Enter(const wchar_t* name) noexcept
{
    try
    {
        m_name = name != nullptr ? name : L"";
        LOG4CXX_TRACE(m_logger, m_name << L" entering.");
        m_bEntered = true;
    }
    catch (...)
    {
        m_name.clear();
    }
}

void KvLogBlock::Enter(const char* name) noexcept
{
    try
    {
        m_name = KvWidenName(name);
        LOG4CXX_TRACE(m_logger, m_name << L" entering.");
        m_bEntered = true;
    }
    catch (...)
    {
        m_name.clear();
    }
}

void KvLogBlock::Exit() noexcept
{
    try
    {
        LOG4CXX_TRACE(m_logger, m_name << L" exiting.");
    }
    catch (...)
    {
    }
}

void KvSetThreadName(const wchar_t* name)
{
    log4cxx::MDC::put(std::wstring(L"threadName"), KvThreadNameValue(name, GetCurrentThreadId()));
}
