// The trace block, thread names and the event-log helpers, with log4cxx writing to a real file.
#include "KvLogging.h"
#include "UtilLog.h"
#include "test_log_capture.h"

#include <thread>

using namespace kvtest;

namespace
{

log4cxx::LoggerPtr windowLogger(KvGetLogger(KvLoggerName::KVNXSTWindow));

// Names the calling thread and gives its thread-name value.
std::string Me()
{
    KvSetThreadName(L"tester");
    return "tester@" + std::to_string(GetCurrentThreadId());
}

void LogFromWorker()
{
    KvSetThreadName(L"ConnectionInfo");
    LOG4CXX_INFO(windowLogger, L"worker");
}

// Stands in for the event log: keeps each source registered and each event as "type/id|string|...".
struct
{
    bool bFailRegistration = false;
    std::vector<std::wstring> sources, events;
} g_fake;
const HANDLE kSource = reinterpret_cast<HANDLE>(static_cast<INT_PTR>(0x4B56));

HANDLE WINAPI FakeRegister(LPCWSTR server, LPCWSTR source)
{
    g_fake.sources.push_back(server == nullptr ? source : L"<remote>");
    return g_fake.bFailRegistration ? nullptr : kSource;
}

BOOL WINAPI FakeReport(HANDLE h, WORD type, WORD category, DWORD id, PSID sid, WORD count, DWORD dataSize,
                       LPCWSTR* strings, LPVOID raw)
{
    // Another source, a category, a user or raw data would show as " odd".
    std::wstring event = std::to_wstring(type) + L"/" + std::to_wstring(id) +
                         (h != kSource || category || sid || dataSize || raw ? L" odd" : L"");
    for (WORD i = 0; i < count; ++i)
        event += L"|" + std::wstring(strings[i] ? strings[i] : L"<null>");
    g_fake.events.push_back(event);
    return TRUE;
}

const KvEventLogApi kFakeApi = {FakeRegister, FakeReport};

class EventLogTest : public ::testing::Test
{
protected:
    void SetUp() override { KvSetEventLogApi(&kFakeApi); }
    void TearDown() override
    {
        KvSetEventLogApi(nullptr);
        g_fake = {};
    }

    LogCapture m_log{"INFO"};
};

} // namespace

TEST(LogFrame, TraceBlockLogsEntryAndExitAtTheCallersPlaceUnderTheThreadName)
{
    LogCapture log;
    ASSERT_TRUE(log.Configured());
    const std::string head =
        "TRACE|KVNXSTWindow|" + Me() + "|test_logging.cpp:" + std::to_string(__LINE__ + 2);
    {
        KvLogBlock logBlock(windowLogger, "CTaskBarWindow::NotifyConnect"); // wide ones trace every e2e run
        EXPECT_EQ(L"CTaskBarWindow::NotifyConnect", logBlock.GetName());
        LOG4CXX_INFO(windowLogger, L"inside");
        SetLastError(10060); // what a timed-out receive leaves for the caller
    }
    EXPECT_EQ(10060u, GetLastError()) << "the exit line must not change the caller's last error";
    std::thread(LogFromWorker).join();

    const std::vector<std::string> lines = log.Lines();
    ASSERT_EQ(4u, lines.size());
    EXPECT_EQ(head + "|CTaskBarWindow::NotifyConnect entering.", lines[0]);
    EXPECT_EQ(0u, lines[1].find("INFO|KVNXSTWindow|" + Me() + "|")) << lines[1];
    EXPECT_EQ(head + "|CTaskBarWindow::NotifyConnect exiting.", lines[2]);
    EXPECT_EQ(0u, lines[3].find("INFO|KVNXSTWindow|ConnectionInfo@")) << lines[3];
}

TEST(LogFrame, TraceOffLogsNothingAndNeverALoneExit)
{
    LogCapture log("INFO");
    {
        KvLogBlock wide(windowLogger, L"Quiet");
        KvLogBlock narrow(windowLogger, "QuietNarrow");
        windowLogger->setLevel(log4cxx::Level::getTrace()); // switched on inside: no exit
    }
    {
        KvLogBlock logBlock(windowLogger, L"SwitchedOff");
        windowLogger->setLevel(nullptr); // back to the root's INFO: the level decides the exit too
    }
    const std::vector<std::string> lines = log.Lines();
    ASSERT_EQ(1u, lines.size());
    EXPECT_NE(std::string::npos, lines[0].find("|SwitchedOff entering."));
}

// Which code and type an event gets, and its text, are the host test's (test_logtext.cpp).
TEST_F(EventLogTest, ErrorAndInformationEventsCarryTheTypeAndTextForTheCode)
{
    const std::string me = Me();
    SetLastError(ERROR_ACCESS_DENIED);
    LogErrorMsg(L"Cannot open the settings key", 5);
    SetLastError(ERROR_FILE_NOT_FOUND); // read before the log line may change it
    LogErrorMsg(L"no file", 0);
    LogInformationMsg(L"Service started");

    const std::wstring head = L"|\r\nKestrova Vexa Remote Control\r\n";
    EXPECT_EQ((std::vector<std::wstring>{L"1/0" + head + L"System Error: 5\r\nCannot open the settings key",
                                         L"1/0" + head + L"System Error: 2\r\nno file",
                                         L"4/0" + head + L"Service started"}),
              g_fake.events);
    const std::vector<std::string> lines = m_log.Lines();
    ASSERT_EQ(3u, lines.size());
    EXPECT_EQ(0u, lines[0].find("ERROR|UtilLog|" + me + "|UtilLog.cpp:")) << lines[0];
    EXPECT_EQ(1u, CountMessage(lines, "ERROR", "UtilLog", "LogErrorMsg dwErr=0: no file"))
        << "the caller's code";
    EXPECT_EQ(1u, CountMessage(lines, "INFO", "UtilLog", "LogInformationMsgService started"));
}

TEST_F(EventLogTest, LocalSourceIsRetriedAfterAFailureAndALongTextCut)
{
    g_fake.bFailRegistration = true;
    LogErrorMsg(L"lost", 5);
    g_fake.bFailRegistration = false;
    LogErrorMsg(std::wstring(5000, L'x').c_str(), 5);
    EXPECT_EQ((std::vector<std::wstring>{L"kvnxsv", L"kvnxsv"}), g_fake.sources) << "registered once more";
    ASSERT_EQ(1u, g_fake.events.size());
    EXPECT_EQ(4u + 1299u, g_fake.events[0].size());
}
