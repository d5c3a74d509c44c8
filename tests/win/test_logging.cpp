// The trace block, thread names and the event-log helpers, with log4cxx writing to a real file.
#include "KvLogging.h"
#include "UtilLog.h"
#include "test_logging_support.h"

#include <log4cxx/logmanager.h>
#include <log4cxx/xml/domconfigurator.h>

#include <regex>
#include <stdexcept>
#include <thread>

using namespace kvtest;

namespace
{

log4cxx::LoggerPtr windowLogger(KvGetLogger(KvLoggerName::KVNXSTWindow));

class LogFrameTest : public ::testing::Test
{
protected:
    void Configure(const char* rootLevel)
    {
        m_log = m_dir.Path() + L"test.log";
        const std::wstring xml = m_dir.Path() + L"test.xml";
        WriteTextFile(xml, LogConfigXml(m_log, rootLevel));
        ASSERT_EQ(log4cxx::spi::ConfigurationStatus::Configured,
                  log4cxx::xml::DOMConfigurator::configure(xml));
        KvSetThreadName(L"tester");
    }

    void TearDown() override { log4cxx::LogManager::resetConfiguration(); }

    std::vector<std::string> LogLines() const { return Lines(ReadTextFile(m_log)); }

    static std::string Me() { return "tester@" + std::to_string(GetCurrentThreadId()); }

    TempFolder m_dir;
    std::wstring m_log;
};

// Traced functions with more than one way out.
int Classify(int n)
{
    KvLogBlock logBlock(windowLogger, L"Classify");
    if (n < 0)
        return -1;
    if (n == 0)
        return 0;
    return 1;
}

void Fails()
{
    KvLogBlock logBlock(windowLogger, L"Fails");
    throw std::runtime_error("failed");
}

void Outer()
{
    KvLogBlock logBlock(windowLogger, L"Outer");
    KvLogBlock inner(windowLogger, "CTaskBarWindow::AddTrayIcon");
}

} // namespace

TEST_F(LogFrameTest, TraceOnLogsEntryAndExitWithLocationAndThreadName)
{
    Configure("TRACE");
    // Both lines carry the place where the block was opened, not the frame's own source.
    const std::string blockLine = std::to_string(__LINE__ + 2);
    {
        KvLogBlock logBlock(windowLogger, L"CTaskBarWindow::NotifyConnect");
        EXPECT_EQ(L"CTaskBarWindow::NotifyConnect", logBlock.GetName());
        LOG4CXX_INFO(windowLogger, L"inside=" << 7);
    }
    const std::vector<std::string> lines = LogLines();
    ASSERT_EQ(3u, lines.size());
    const std::regex entering("TRACE\\|KVNXSTWindow\\|" + Me() +
                              "\\|test_logging\\.cpp:" + blockLine + "\\|CTaskBarWindow::NotifyConnect "
                              "entering\\.");
    const std::regex exiting("TRACE\\|KVNXSTWindow\\|" + Me() +
                             "\\|test_logging\\.cpp:" + blockLine + "\\|CTaskBarWindow::NotifyConnect "
                             "exiting\\.");
    EXPECT_TRUE(std::regex_match(lines[0], entering)) << lines[0];
    EXPECT_TRUE(std::regex_match(
        lines[1], std::regex("INFO\\|KVNXSTWindow\\|" + Me() + "\\|test_logging\\.cpp:[0-9]+\\|inside=7")))
        << lines[1];
    EXPECT_TRUE(std::regex_match(lines[2], exiting)) << lines[2];
}

TEST_F(LogFrameTest, EveryWayOutLogsTheExitExactlyOnce)
{
    Configure("TRACE");
    EXPECT_EQ(-1, Classify(-5));
    EXPECT_EQ(0, Classify(0));
    EXPECT_EQ(1, Classify(3));
    EXPECT_THROW(Fails(), std::runtime_error);
    Outer();

    const std::vector<std::string> lines = LogLines();
    EXPECT_EQ(3u, CountContaining(lines, "|Classify entering."));
    EXPECT_EQ(3u, CountContaining(lines, "|Classify exiting."));
    EXPECT_EQ(1u, CountContaining(lines, "|Fails entering."));
    EXPECT_EQ(1u, CountContaining(lines, "|Fails exiting."));

    // Nested blocks close in reverse order; the narrow name arrives widened.
    ASSERT_GE(lines.size(), 4u);
    const std::vector<std::string> tail(lines.end() - 4, lines.end());
    EXPECT_NE(std::string::npos, tail[0].find("|Outer entering."));
    EXPECT_NE(std::string::npos, tail[1].find("|CTaskBarWindow::AddTrayIcon entering."));
    EXPECT_NE(std::string::npos, tail[2].find("|CTaskBarWindow::AddTrayIcon exiting."));
    EXPECT_NE(std::string::npos, tail[3].find("|Outer exiting."));
}

TEST_F(LogFrameTest, TraceOffLogsNothingAndKeepsNoName)
{
    Configure("INFO");
    {
        KvLogBlock wide(windowLogger, L"Quiet");
        KvLogBlock narrow(windowLogger, "QuietNarrow");
        EXPECT_TRUE(wide.GetName().empty());
        EXPECT_TRUE(narrow.GetName().empty());
    }
    LOG4CXX_INFO(windowLogger, L"marker");

    // TRACE for one logger only: the others stay quiet.
    log4cxx::LoggerPtr serviceLogger = KvGetLogger(KvLoggerName::UtilService);
    serviceLogger->setLevel(log4cxx::Level::getTrace());
    {
        KvLogBlock quiet(windowLogger, L"StillQuiet");
        KvLogBlock traced(serviceLogger, L"IsServiceRunning");
    }

    const std::vector<std::string> lines = LogLines();
    ASSERT_EQ(3u, lines.size());
    EXPECT_NE(std::string::npos, lines[0].find("|marker"));
    EXPECT_NE(std::string::npos, lines[1].find("TRACE|UtilService|"));
    EXPECT_NE(std::string::npos, lines[1].find("|IsServiceRunning entering."));
    EXPECT_NE(std::string::npos, lines[2].find("|IsServiceRunning exiting."));
}

TEST_F(LogFrameTest, LevelChangedInsideABlockNeverLeavesALoneExit)
{
    Configure("INFO");
    {
        KvLogBlock logBlock(windowLogger, L"SwitchedOn");
        windowLogger->setLevel(log4cxx::Level::getTrace());
    }
    {
        KvLogBlock logBlock(windowLogger, L"SwitchedOff");
        windowLogger->setLevel(log4cxx::Level::getInfo());
    }
    const std::vector<std::string> lines = LogLines();
    EXPECT_EQ(0u, CountContaining(lines, " exiting."));
    EXPECT_EQ(0u, CountContaining(lines, "SwitchedOn"));
    EXPECT_EQ(1u, CountContaining(lines, "|SwitchedOff entering."));
}

TEST_F(LogFrameTest, EachThreadLogsUnderItsOwnName)
{
    Configure("INFO");
    DWORD workerId = 0;
    std::thread worker(
        [&workerId]
        {
            workerId = GetCurrentThreadId();
            KvSetThreadName(L"ConnectionInfo");
            LOG4CXX_INFO(windowLogger, L"from worker");
        });
    worker.join();
    LOG4CXX_INFO(windowLogger, L"from main");

    const std::vector<std::string> lines = LogLines();
    ASSERT_EQ(2u, lines.size());
    EXPECT_NE(std::string::npos, lines[0].find("|ConnectionInfo@" + std::to_string(workerId) + "|"));
    EXPECT_NE(std::string::npos, lines[0].find("|from worker"));
    EXPECT_NE(std::string::npos, lines[1].find("|" + Me() + "|"));
}

// --- event log ------------------------------------------------------------------------------

namespace
{

// Stands in for the event log and keeps everything it was given.
struct FakeEventLog
{
    struct Registration
    {
        bool bLocal;
        std::wstring source;
    };
    struct Report
    {
        HANDLE hSource;
        WORD wType;
        WORD wCategory;
        DWORD dwEventId;
        PSID pSid;
        DWORD dwDataSize;
        LPVOID pRawData;
        std::vector<std::wstring> strings;
    };

    static HANDLE WINAPI Register(LPCWSTR server, LPCWSTR source)
    {
        instance->registrations.push_back({server == nullptr, source != nullptr ? source : L""});
        return instance->bFailRegistration ? nullptr : kHandle;
    }

    static BOOL WINAPI Write(HANDLE h, WORD type, WORD category, DWORD id, PSID sid, WORD count,
                             DWORD dataSize, LPCWSTR* strings, LPVOID raw)
    {
        Report r{h, type, category, id, sid, dataSize, raw, {}};
        for (WORD i = 0; i < count; ++i)
            r.strings.push_back(strings[i] != nullptr ? strings[i] : L"<null>");
        instance->reports.push_back(r);
        return TRUE;
    }

    static FakeEventLog* instance;
    static inline const HANDLE kHandle = reinterpret_cast<HANDLE>(static_cast<INT_PTR>(0x4B56));

    bool bFailRegistration = false;
    std::vector<Registration> registrations;
    std::vector<Report> reports;
};

FakeEventLog* FakeEventLog::instance = nullptr;

const KvEventLogApi kFakeApi = {FakeEventLog::Register, FakeEventLog::Write};

class EventLogTest : public LogFrameTest
{
protected:
    void SetUp() override
    {
        FakeEventLog::instance = &m_fake;
        KvSetEventLogApi(&kFakeApi);
        Configure("INFO");
    }

    void TearDown() override
    {
        KvSetEventLogApi(nullptr);
        FakeEventLog::instance = nullptr;
        LogFrameTest::TearDown();
    }

    const FakeEventLog::Report& OnlyReport()
    {
        static const FakeEventLog::Report none{};
        EXPECT_EQ(1u, m_fake.reports.size());
        return m_fake.reports.empty() ? none : m_fake.reports.back();
    }

    FakeEventLog m_fake;
};

const std::wstring kHead = L"\r\nKestrova Vexa Remote Control\r\n";

} // namespace

TEST_F(EventLogTest, ErrorCodeWritesAnErrorEventUnderTheAgentsSource)
{
    LogErrorMsg(L"Cannot open the settings key", 5);

    ASSERT_EQ(1u, m_fake.registrations.size());
    EXPECT_TRUE(m_fake.registrations[0].bLocal);
    EXPECT_EQ(L"kvnxsv", m_fake.registrations[0].source);

    const FakeEventLog::Report& r = OnlyReport();
    EXPECT_EQ(FakeEventLog::kHandle, r.hSource);
    EXPECT_EQ(EVENTLOG_ERROR_TYPE, r.wType);
    EXPECT_EQ(0, r.wCategory);
    EXPECT_EQ(0u, r.dwEventId);
    EXPECT_EQ(nullptr, r.pSid);
    EXPECT_EQ(0u, r.dwDataSize);
    EXPECT_EQ(nullptr, r.pRawData);
    ASSERT_EQ(1u, r.strings.size());
    EXPECT_EQ(kHead + L"System Error: 5\r\nCannot open the settings key", r.strings[0]);

    const std::vector<std::string> lines = LogLines();
    ASSERT_EQ(1u, lines.size());
    EXPECT_TRUE(std::regex_match(lines[0], std::regex("ERROR\\|UtilLog\\|" + Me() +
                                                      "\\|UtilLog\\.cpp:[0-9]+\\|LogErrorMsg "
                                                      "dwErr=5: Cannot open the settings key")))
        << lines[0];
}

TEST_F(EventLogTest, ZeroCodeTakesTheLastErrorAndPendingIoCountsAsNone)
{
    SetLastError(ERROR_IO_PENDING);
    LogErrorMsg(L"overlapped write queued", 0);
    SetLastError(ERROR_FILE_NOT_FOUND);
    LogErrorMsg(L"no file", 0);
    SetLastError(ERROR_ACCESS_DENIED);
    LogErrorMsg(L"pending", ERROR_IO_PENDING);

    ASSERT_EQ(3u, m_fake.reports.size());
    EXPECT_EQ(EVENTLOG_INFORMATION_TYPE, m_fake.reports[0].wType);
    EXPECT_EQ(kHead + L"System Error: 0\r\noverlapped write queued", m_fake.reports[0].strings[0]);
    EXPECT_EQ(EVENTLOG_ERROR_TYPE, m_fake.reports[1].wType);
    EXPECT_EQ(kHead + L"System Error: 2\r\nno file", m_fake.reports[1].strings[0]);
    EXPECT_EQ(EVENTLOG_INFORMATION_TYPE, m_fake.reports[2].wType);
    EXPECT_EQ(kHead + L"System Error: 0\r\npending", m_fake.reports[2].strings[0]);

    // The log shows the code the caller gave.
    EXPECT_EQ(1u, CountContaining(LogLines(), "|LogErrorMsg dwErr=0: overlapped write queued"));
}

TEST_F(EventLogTest, InformationMessageWritesAnInformationEvent)
{
    LogInformationMsg(L"Service started");

    const FakeEventLog::Report& r = OnlyReport();
    EXPECT_EQ(EVENTLOG_INFORMATION_TYPE, r.wType);
    EXPECT_EQ(0u, r.dwEventId);
    ASSERT_EQ(1u, r.strings.size());
    EXPECT_EQ(kHead + L"Service started", r.strings[0]);
    EXPECT_EQ(1u, CountContaining(LogLines(), "INFO|UtilLog|"));
    EXPECT_EQ(1u, CountContaining(LogLines(), "|LogInformationMsgService started"));
}

TEST_F(EventLogTest, SourceIsRegisteredOnceAndRetriedAfterAFailure)
{
    m_fake.bFailRegistration = true;
    LogErrorMsg(L"lost", 5);
    EXPECT_EQ(1u, m_fake.registrations.size());
    EXPECT_TRUE(m_fake.reports.empty());

    m_fake.bFailRegistration = false;
    LogErrorMsg(L"first", 5);
    LogInformationMsg(L"second");
    ReportEventLog(EVENTLOG_WARNING_TYPE, 0, L"third", nullptr, nullptr);
    EXPECT_EQ(2u, m_fake.registrations.size());
    ASSERT_EQ(3u, m_fake.reports.size());
    for (const FakeEventLog::Report& r : m_fake.reports)
        EXPECT_EQ(FakeEventLog::kHandle, r.hSource);
}

TEST_F(EventLogTest, InsertionStringsAreTheNonNullOnesAndLongTextsAreCut)
{
    ReportEventLog(EVENTLOG_WARNING_TYPE, 77, L"one", nullptr, L"three");
    ReportEventLog(EVENTLOG_INFORMATION_TYPE, 0, nullptr, nullptr, nullptr);
    ReportEventLog(EVENTLOG_INFORMATION_TYPE, 0, L"a", L"b", L"c");
    const std::wstring longMsg(5000, L'x');
    LogErrorMsg(longMsg.c_str(), 5);

    ASSERT_EQ(4u, m_fake.reports.size());
    EXPECT_EQ(EVENTLOG_WARNING_TYPE, m_fake.reports[0].wType);
    EXPECT_EQ(77u, m_fake.reports[0].dwEventId);
    EXPECT_EQ((std::vector<std::wstring>{L"one", L"three"}), m_fake.reports[0].strings);
    EXPECT_EQ((std::vector<std::wstring>{L""}), m_fake.reports[1].strings);
    EXPECT_EQ((std::vector<std::wstring>{L"a", L"b", L"c"}), m_fake.reports[2].strings);
    EXPECT_EQ(1299u, m_fake.reports[3].strings[0].size());
}
