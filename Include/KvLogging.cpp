#include "KvLogging.h"

#include "KvLogText.h"

#include <windows.h>

#include <log4cxx/mdc.h>

log4cxx::LoggerPtr KvGetLogger(const char* name)
{
    return log4cxx::Logger::getLogger(name);
}

// Logging must never fail its caller: whatever goes wrong here (out of memory, an appender that
// throws) leaves the block without a name and the traced function unaffected. Nor may it change
// the caller's last error, which a traced function's caller reads after the block has closed.
namespace
{
class KeepLastError
{
public:
    KeepLastError() noexcept : m_dwError(GetLastError()) {}
    ~KeepLastError() { SetLastError(m_dwError); }
    KeepLastError(const KeepLastError&) = delete;
    KeepLastError& operator=(const KeepLastError&) = delete;

private:
    DWORD m_dwError;
};
} // namespace
void KvLogBlock::Enter(const wchar_t* name, const char* file, const char* function, int line) noexcept
{
    const KeepLastError keep;
    try
    {
        m_name = name != nullptr ? name : L"";
        m_szFile = file;
        m_szFunction = function;
        m_nLine = line;
        m_logger->forcedLog(log4cxx::Level::getTrace(), m_name + L" entering.", Where());
        m_bEntered = true;
    }
    catch (...)
    {
        m_name.clear();
    }
}

void KvLogBlock::Enter(const char* name, const char* file, const char* function, int line) noexcept
{
    try
    {
        Enter(KvWidenName(name).c_str(), file, function, line);
    }
    catch (...)
    {
        m_name.clear();
    }
}

void KvLogBlock::Exit() noexcept
{
    const KeepLastError keep;
    try
    {
        // Checked again: the level may have changed inside the block.
        if (log4cxx::Logger::isTraceEnabledFor(m_logger))
            m_logger->forcedLog(log4cxx::Level::getTrace(), m_name + L" exiting.", Where());
    }
    catch (...)
    {
    }
}

log4cxx::spi::LocationInfo KvLogBlock::Where() const
{
    return log4cxx::spi::LocationInfo(m_szFile, log4cxx::spi::LocationInfo::calcShortFileName(m_szFile),
                                      m_szFunction, m_nLine);
}

void KvSetThreadName(const wchar_t* name)
{
    log4cxx::MDC::put(std::wstring(L"threadName"), KvThreadNameValue(name, GetCurrentThreadId()));
}
