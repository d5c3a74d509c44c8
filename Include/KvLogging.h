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
    // The defaulted arguments are filled at the caller, so both lines name the traced function's
    // file and line rather than this header's (the builtins are the compilers' own source_location
    // support, in GCC, Clang and MSVC alike).
    KvLogBlock(log4cxx::LoggerPtr& logger, const wchar_t* name, const char* file = __builtin_FILE(),
               const char* function = __builtin_FUNCTION(), int line = __builtin_LINE())
        : m_logger(logger), m_szFile(nullptr), m_szFunction(nullptr), m_nLine(0), m_bEntered(false)
    {
        if (log4cxx::Logger::isTraceEnabledFor(m_logger))
            Enter(name, file, function, line);
    }

    KvLogBlock(log4cxx::LoggerPtr& logger, const char* name, const char* file = __builtin_FILE(),
               const char* function = __builtin_FUNCTION(), int line = __builtin_LINE())
        : m_logger(logger), m_szFile(nullptr), m_szFunction(nullptr), m_nLine(0), m_bEntered(false)
    {
        if (log4cxx::Logger::isTraceEnabledFor(m_logger))
            Enter(name, file, function, line);
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
    void Enter(const wchar_t* name, const char* file, const char* function, int line) noexcept;
    void Enter(const char* name, const char* file, const char* function, int line) noexcept;
    void Exit() noexcept;

    log4cxx::spi::LocationInfo Where() const;

    log4cxx::LoggerPtr& m_logger;
    std::wstring m_name;
    // Kept raw: building log4cxx's location object would cost a call even with TRACE off.
    const char* m_szFile;
    const char* m_szFunction;
    int m_nLine;
    bool m_bEntered;
};

// Puts the calling thread's "threadName" context value: name, "@", the decimal thread id.
void KvSetThreadName(const wchar_t* name);
