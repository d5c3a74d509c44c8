// The agent's side of the service link in this process: the desktop-switch threads against a
// stand-in for the tray window, and how the connection thread gives up (event log, service states).
// The ports and the records of the running link are driven end to end against the built agent.
#include "ConnectionInfo.h"
#include "DesktopSwitchWatcher.h"
#include "KVNXST.h"
#include "KVNXSTWindow.h"
#include "KvSystemApi.h"
#include "UtilLog.h"
#include "resource.h"

#include "parked_tray_window.h"
#include "stand_in_service.h"

#include <gtest/gtest.h>

#include <process.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cwchar>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace
{

HANDLE StartThread(unsigned(__stdcall* pfn)(void*), void* pArg)
{
    return reinterpret_cast<HANDLE>(_beginthreadex(nullptr, 0, pfn, pArg, 0, nullptr));
}

// --- The desktop-switch threads.

std::atomic<const wchar_t*> g_szInputDesktop{L"Default"};


// The tray window as the watchers see it: the handshake event, a stand-in for the connection
// thread, the viewer count, and what they send and the timers they ask for.
struct WatchedWindow : IKvWatcherLink
{
    int SendToService(const void* pBuffer, int nLength) override
    {
        std::lock_guard<std::mutex> lock(mutex);
        const auto* words = static_cast<const std::uint32_t*>(pBuffer);
        sent.insert(sent.end(), words, words + nLength / 4);
        changed.notify_all();
        return 1;
    }
    HANDLE SessionEvent() const override { return hSession; }
    HANDLE ConnectionThread() const override { return hConnection; }
    int Connections() const override { return nConnections; }
    void StartTimer(UINT_PTR uTimer, UINT) override
    {
        std::lock_guard<std::mutex> lock(mutex);
        timers.push_back(uTimer);
    }
    // The words sent once at least nWords came or dwMs passed, and the timers asked for; both taken.
    std::pair<std::vector<std::uint32_t>, std::vector<UINT_PTR>> Take(size_t nWords, DWORD dwMs)
    {
        std::unique_lock<std::mutex> lock(mutex);
        changed.wait_for(lock, std::chrono::milliseconds(dwMs), [&] { return sent.size() >= nWords; });
        changed.wait_for(lock, std::chrono::milliseconds(200), [] { return false; }); // anything more
        return {std::move(sent), std::move(timers)};
    }

    HANDLE hSession = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    HANDLE hConnection = CreateEventW(nullptr, TRUE, FALSE, nullptr); // the connection thread, running
    std::atomic<int> nConnections{0};
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<std::uint32_t> sent;
    std::vector<UINT_PTR> timers;
};

class DesktopWatcher : public ::testing::Test
{
protected:
    DesktopWatcher()
    {
        m_api.pfnGetInputDesktopName = [](wchar_t* szName, DWORD cchName) -> BOOL
        { return wcsncpy_s(szName, cchName, g_szInputDesktop.load(), _TRUNCATE) != EINVAL; };
        g_szInputDesktop = L"Default";
        std::wmemcpy(g_szDesktopName, L"Agent", 6); // another desktop than the input one: state 7
        g_hStopEvent = CreateEventW(nullptr, TRUE, FALSE, nullptr);
        m_hThreads[0] = StartThread(DesktopChangeThread, static_cast<IKvWatcherLink*>(&m_window));
        m_hThreads[1] = StartThread(DesktopHaveChangedThread, static_cast<IKvWatcherLink*>(&m_window));
    }
    ~DesktopWatcher() override
    {
        SetEvent(g_hStopEvent);
        EXPECT_TRUE(Ended());
        for (HANDLE h :
             {m_hThreads[0], m_hThreads[1], m_window.hSession, m_window.hConnection, m_hSwitch, g_hStopEvent})
            CloseHandle(h);
        g_hStopEvent = nullptr;
    }

    bool Ended() { return WaitForMultipleObjects(2, m_hThreads, TRUE, 5000) == WAIT_OBJECT_0; }
    // The state reports sent after the desktop switched to szDesktop, and the timers asked for.
    std::pair<std::vector<std::uint32_t>, std::vector<UINT_PTR>> Switch(const wchar_t* szDesktop)
    {
        g_szInputDesktop = szDesktop;
        SetEvent(m_hSwitch);
        return m_window.Take(2, 5000);
    }
    using Timers = std::vector<UINT_PTR>;
    static std::vector<std::uint32_t> State(std::uint32_t dwState) { return {50007, dwState}; }

    KvSystemApi m_api = KvDefaultSystemApi();
    KvScopedSystemApi m_scoped{m_api};
    // Wine has no desktop-switch event: the test's own takes its name.
    HANDLE m_hSwitch = CreateEventW(nullptr, FALSE, FALSE, L"WinSta0_DesktopSwitch");
    WatchedWindow m_window;
    HANDLE m_hThreads[2] = {};
};

TEST_F(DesktopWatcher, ReportsAfterTheHandshakeAndOnEverySwitchWhileTheLinkLives)
{
    EXPECT_TRUE(m_window.Take(2, 300).first.empty()) << "nothing before the handshake";
    SetEvent(m_window.hSession);
    EXPECT_EQ(State(7), m_window.Take(2, 5000).first) << "one report per handshake";

    // The screen saver takes the desktop; nobody watches, so no notice follows.
    EXPECT_EQ(std::make_pair(State(8), Timers()), Switch(L"Screen-saver"));
    // With a viewer on, the notice and the icon are brought back soon.
    m_window.nConnections = 1;
    EXPECT_EQ(std::make_pair(State(8), Timers{KV_TIMER_NOTIFY_CONNECT, KV_TIMER_TRAY_RETRY}),
              Switch(L"Screen-saver"));
    EXPECT_EQ(std::make_pair(State(7), Timers()), Switch(L"Default"));

    // Both threads end with the connection thread.
    SetEvent(m_window.hConnection);
    EXPECT_TRUE(Ended());
}

// --- How the connection thread starts and gives up.

std::vector<std::pair<WORD, std::wstring>> g_events;

const KvEventLogApi kFakeEventLog = {
    [](LPCWSTR, LPCWSTR) -> HANDLE { return reinterpret_cast<HANDLE>(1); },
    [](HANDLE, WORD wType, WORD, DWORD, PSID, WORD wCount, DWORD, LPCWSTR* strings, LPVOID) -> BOOL
    {
        g_events.emplace_back(wType, wCount > 0 && strings[0] != nullptr ? strings[0] : L"");
        return TRUE;
    }};

// Nobody on the port and no answer to the port query: one event says why, and the agent closes.
TEST(ConnectionStart, GivingUpLeavesOneEventThatNamesTheServiceState)
{
    KvSetEventLogApi(&kFakeEventLog);
    struct Restore
    {
        ~Restore() { KvSetEventLogApi(nullptr); }
    } restore;
    kvtest::StandInService service; // "kvnxsv"
    const struct
    {
        const char* name;
        int nServiceState; // 0 absent, 1 installed, 2 running
        WORD wType;
        UINT uString;
        const wchar_t* szDetail; // follows the string
    } cases[] = {
        {"not installed", 0, EVENTLOG_INFORMATION_TYPE, IDS_EVENT_SERVICE_NOT_INSTALLED, L""},
        {"installed, stopped", 1, EVENTLOG_INFORMATION_TYPE, IDS_EVENT_SERVICE_NOT_RUNNING, L""},
        // Running but not listening: the refusal's own code and text.
        {"running", 2, EVENTLOG_ERROR_TYPE, IDS_EVENT_CONNECT_FAILED, L"\r\n"},
    };
    for (const auto& c : cases)
    {
        service.Remove();
        ASSERT_TRUE(c.nServiceState < 1 || service.Install()) << GetLastError();
        ASSERT_TRUE(c.nServiceState < 2 || service.Start()) << GetLastError();
        g_events.clear();
        kvtest::ParkedTrayWindow tray; // nobody listens on its port 1
        HANDLE hThread = StartThread(ConnectionInfo, static_cast<IKvTrayLink*>(tray.window.get()));
        ASSERT_EQ(WAIT_OBJECT_0, WaitForSingleObject(hThread, 30000)) << c.name;
        CloseHandle(hThread);
        EXPECT_NE(kvtest::ParkedTrayWindow::kNone, tray.Take(WM_KV_QUIT)) << c.name;
        ASSERT_EQ(1u, g_events.size()) << c.name;
        EXPECT_EQ(c.wType, g_events[0].first) << c.name;
        const std::wstring text = kvtest::ResourceText(g_hResInstance, c.uString);
        ASSERT_FALSE(text.empty());
        const std::wstring& event = g_events[0].second;
        EXPECT_NE(std::wstring::npos, event.find(text + c.szDetail))
            << c.name << ": " << kvtest::Narrow(event);
        if (c.wType == EVENTLOG_ERROR_TYPE)
        {
            EXPECT_NE(std::wstring::npos, event.find(L"System Error: 10061\r\n")) << kvtest::Narrow(event);
        }
    }
}

} // namespace
