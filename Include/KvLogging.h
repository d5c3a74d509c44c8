// The logging frame: logger names, the entry/exit trace block and the thread-name context value.
#pragma once

#include <log4cxx/logger.h>

#include <string>

// One logger per source unit; the configuration file refers to these names.
namespace KvLoggerName
{
inline constexpr char KVNXST[] = "KVNXST";
inline constexpr char KVNXSTWindow[] = "KVNXSTWindow";
inline constexpr char KVNXSTWindowChat[] = "KVNXSTWindowChat";
inline constexpr char ConnectionInfo[] = "ConnectionInfo";
inline constexpr char SimultanousSessionMutex[] = "SimultanousSessionMutex";
inline constexpr char AboutDialog[] = "AboutDialog";
inline constexpr char UtilScreenSaver[] = "UtilScreenSaver";
inline constexpr char UtilTimedMessageBox[] = "UtilTimedMessageBox";
inline constexpr char ClientPermissionDialog[] = "ClientPermissionDialog";
inline constexpr char NotifyDialog[] = "NotifyDialog";
inline constexpr char ConnectInProgressDialog[] = "ConnectInProgressDialog";
inline constexpr char JoinAttendedSessionDialog[] = "JoinAttendedSessionDialog";
inline constexpr char ConnectToClientDialog[] = "ConnectToClientDialog";
inline constexpr char CreateInvitationDialog[] = "CreateInvitationDialog";
inline constexpr char DesktopOptions[] = "DesktopOptions";
inline constexpr char SFT_DropWindow[] = "SFT_DropWindow";
inline constexpr char ValidateCertDialog[] = "ValidateCertDialog";
inline constexpr char UtilFile[] = "UtilFile";
inline constexpr char UtilService[] = "UtilService";
inline constexpr char UtilSettings[] = "UtilSettings";
inline constexpr char UtilLog[] = "UtilLog";
inline constexpr char UtilVersion[] = "UtilVersion";
inline constexpr char UtilWTS[] = "UtilWTS";
} // namespace KvLoggerName

// A unit's logger, for its static initialisation:
//   static log4cxx::LoggerPtr logger(KvGetLogger(KvLoggerName::UtilLog));
log4cxx::LoggerPtr KvGetLogger(const char* name);

// Logs "<name> entering." at construction and "<name> exiting." at destruction, at TRACE, so a
// TRACE log shows the call tree. With TRACE off it costs one level test: the name is not even
// copied. Only a block that logged its entry logs its exit, so the pairs always match.
// The logger is held by reference: pass the unit's static LoggerPtr, never a temporary.
class KvLogBlock
{
public:
    KvLogBlock(log4cxx::LoggerPtr& logger, const wchar_t* name) : m_logger(logger), m_bEntered(false)
    {
        if (log4cxx::Logger::isTraceEnabledFor(m_logger))
            Enter(name);
    }

    KvLogBlock(log4cxx::LoggerPtr& logger, const char* name) : m_logger(logger), m_bEntered(false)
    {
        if (log4cxx::Logger::isTraceEnabledFor(m_logger))
            Enter(name);
    }

    ~KvLogBlock()
    {
        if (m_bEntered)
            Exit();
    }

    KvLogBlock(const KvLogBlock&) = delete;
    KvLogBlock& operator=(const KvLogBlock&) = delete;

    // The traced function's name; empty when TRACE was off at construction.
    const std::wstring& GetName() const noexcept { return m_name; }

private:
    void Enter(const wchar_t* name) noexcept;
    void Enter(const char* name) noexcept;
    void Exit() noexcept;

    log4cxx::LoggerPtr& m_logger;
    std::wstring m_name;
    bool m_bEntered;
};

// Puts the calling thread's "threadName" context value: name, "@", the decimal thread id.
void KvSetThreadName(const wchar_t* name);
