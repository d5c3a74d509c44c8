// The agent's side of the service link in this process: the desktop-switch threads against a
// loopback peer, and how the connection thread gives up (event log, service states). The ports and
// the records of the running link are driven end to end against the built agent elsewhere.
#include "ConnectionInfo.h"
#include "DesktopSwitchWatcher.h"
#include "KVNXST.h"
#include "KVNXSTWindow.h"
#include "KvSocket.h"
#include "KvSystemApi.h"
#include "UtilLog.h"
#include "resource.h"

#include "parked_tray_window.h"
#include "stand_in_service.h"

#include <gtest/gtest.h>

#include <process.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <cwchar>
#include <memory>
#include <string>
#include <utility>
#include <vector>

using kvtest::ModuleFolder;

namespace
{

const bool g_bWinsock = []
{
    WSADATA data;
    return WSAStartup(MAKEWORD(2, 2), &data) == 0;
}();

// --- The tray window, without its own start: its threads are started by the tests.

// A parked tray window with an unconnected socket, as the connection thread finds it.
struct TrayWindow : kvtest::ParkedTrayWindow
{
    explicit TrayWindow(unsigned int uiPort) : ParkedTrayWindow(uiPort)
    {
        window->m_pSocket = new CKvSocket();
    }
    // The ids of the timers that fired within dwMs (the timers are not killed).
    std::vector<UINT_PTR> Timers(DWORD dwMs) const
    {
        std::vector<UINT_PTR> ids;
        MSG msg;
        for (DWORD dwStart = GetTickCount(); GetTickCount() - dwStart < dwMs; Sleep(20))
            while (PeekMessageW(&msg, window->m_hWnd, WM_TIMER, WM_TIMER, PM_REMOVE))
                if (std::find(ids.begin(), ids.end(), msg.wParam) == ids.end())
                    ids.push_back(msg.wParam);
        std::sort(ids.begin(), ids.end());
        return ids;
    }
};

HANDLE StartThread(unsigned(__stdcall* pfn)(void*), void* pArg)
{
    return reinterpret_cast<HANDLE>(_beginthreadex(nullptr, 0, pfn, pArg, 0, nullptr));
}

// --- Loopback peers standing in for the service.

struct Listener
{
    Listener() : h(socket(AF_INET, SOCK_STREAM, 0))
    {
        sockaddr_in addr = {};
        addr.sin_family = AF_INET;
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        int cb = sizeof addr;
        bind(h, reinterpret_cast<sockaddr*>(&addr), cb);
        listen(h, 1);
        getsockname(h, reinterpret_cast<sockaddr*>(&addr), &cb);
        port = ntohs(addr.sin_port);
    }
    ~Listener()
    {
        closesocket(hConn);
        closesocket(h);
    }
    // Accepts the one connection, giving up after dwMs.
    bool Accept(DWORD dwMs)
    {
        fd_set set;
        FD_ZERO(&set);
        FD_SET(h, &set);
        timeval tv = {static_cast<long>(dwMs / 1000), static_cast<long>(dwMs % 1000 * 1000)};
        if (select(0, &set, nullptr, nullptr, &tv) != 1)
            return false;
        hConn = accept(h, nullptr, nullptr);
        return hConn != INVALID_SOCKET;
    }
    // Up to nWords words of what arrives within dwMs; fewer when the time or the stream ends.
    std::vector<std::uint32_t> Words(int nWords, DWORD dwMs)
    {
        const DWORD dwTimeout = dwMs;
        setsockopt(hConn, SOL_SOCKET, SO_RCVTIMEO, reinterpret_cast<const char*>(&dwTimeout),
                   sizeof dwTimeout);
        std::vector<std::uint32_t> words(static_cast<size_t>(nWords));
        int cbHave = 0;
        const int cbWant = nWords * 4;
        while (cbHave < cbWant)
        {
            const int n = recv(hConn, reinterpret_cast<char*>(words.data()) + cbHave, cbWant - cbHave, 0);
            if (n <= 0)
                break;
            cbHave += n;
        }
        words.resize(static_cast<size_t>(cbHave / 4));
        return words;
    }

    SOCKET h, hConn = INVALID_SOCKET;
    unsigned short port = 0;
};

// A port on which nobody listens: connecting is refused at once.
unsigned short ClosedPort()
{
    return Listener().port;
}

// --- The desktop-switch threads.

std::atomic<const wchar_t*> g_szInputDesktop{L"Default"};

BOOL FakeInputDesktopName(wchar_t* szName, DWORD cchName)
{
    const std::wstring name = g_szInputDesktop.load();
    name.copy(szName, cchName - 1);
    szName[std::min<size_t>(name.size(), cchName - 1)] = L'\0';
    return TRUE;
}

class DesktopWatcher : public ::testing::Test
{
protected:
    DesktopWatcher()
    {
        m_api.pfnGetInputDesktopName = FakeInputDesktopName;
        g_szInputDesktop = L"Default";
        std::wmemcpy(g_szDesktopName, L"Agent", 6); // another desktop than the input one: state 7
    }

    void SetUp() override
    {
        g_hStopEvent = CreateEventW(nullptr, TRUE, FALSE, nullptr);
        CTaskBarWindow& w = *m_tray.window;
        ASSERT_EQ(1, w.m_pSocket->Connect(L"127.0.0.1", m_service.port, SOCK_STREAM, 0));
        ASSERT_TRUE(m_service.Accept(5000));
        w.m_hSessionEvent = CreateEventW(nullptr, TRUE, FALSE, nullptr);
        w.m_hConnectionThread = m_hConnection;
        m_hThreads[0] = StartThread(DesktopChangeThread, &w);
        m_hThreads[1] = StartThread(DesktopHaveChangedThread, &w);
    }

    void TearDown() override
    {
        SetEvent(g_hStopEvent);
        EXPECT_TRUE(Ended());
        for (HANDLE h : m_hThreads)
            CloseHandle(h);
        SetEvent(m_hConnection); // the window's end waits for it; it goes with the window
        CloseHandle(m_hSwitch);
    }

    ~DesktopWatcher() override
    {
        CloseHandle(g_hStopEvent);
        g_hStopEvent = nullptr;
    }

    bool Ended() { return WaitForMultipleObjects(2, m_hThreads, TRUE, 5000) == WAIT_OBJECT_0; }

    static std::vector<std::uint32_t> State(std::uint32_t dwState) { return {50007, dwState}; }

    KvSystemApi m_api = KvDefaultSystemApi();
    KvScopedSystemApi m_scoped{m_api};
    // Wine has no desktop-switch event: the test's own takes its name.
    HANDLE m_hSwitch = CreateEventW(nullptr, FALSE, FALSE, L"WinSta0_DesktopSwitch");
    HANDLE m_hConnection = CreateEventW(nullptr, TRUE, FALSE, nullptr); // the connection thread, running
    TrayWindow m_tray{0};
    Listener m_service;
    HANDLE m_hThreads[2] = {};
};

TEST_F(DesktopWatcher, ReportsAfterTheHandshakeAndOnEverySwitchWhileTheLinkLives)
{
    CTaskBarWindow& w = *m_tray.window;
    EXPECT_TRUE(m_service.Words(2, 300).empty()) << "nothing before the handshake";
    SetEvent(w.m_hSessionEvent);
    EXPECT_EQ(State(7), m_service.Words(2, 5000));
    EXPECT_TRUE(m_service.Words(2, 500).empty()) << "one report per handshake";

    // The screen saver takes the desktop; nobody watches, so no notice follows.
    g_szInputDesktop = L"Screen-saver";
    SetEvent(m_hSwitch);
    EXPECT_EQ(State(8), m_service.Words(2, 5000));
    EXPECT_TRUE(m_tray.Timers(600).empty());

    // With a viewer on, the notice and the icon are brought back soon.
    w.m_nConnections = 1;
    SetEvent(m_hSwitch);
    EXPECT_EQ(State(8), m_service.Words(2, 5000));
    EXPECT_EQ((std::vector<UINT_PTR>{KV_TIMER_NOTIFY_CONNECT, KV_TIMER_TRAY_RETRY}), m_tray.Timers(1000));
    KillTimer(w.m_hWnd, KV_TIMER_NOTIFY_CONNECT);
    KillTimer(w.m_hWnd, KV_TIMER_TRAY_RETRY);

    g_szInputDesktop = L"Default";
    SetEvent(m_hSwitch);
    EXPECT_EQ(State(7), m_service.Words(2, 5000));

    // Both threads end with the connection thread.
    SetEvent(m_hConnection);
    EXPECT_TRUE(Ended());
}

TEST_F(DesktopWatcher, StopBeforeTheHandshakeEndsBothWithoutAWord)
{
    SetEvent(m_hSwitch);
    SetEvent(g_hStopEvent);
    EXPECT_TRUE(Ended());
    m_tray.window->m_pSocket->Close();
    EXPECT_TRUE(m_service.Words(1, 5000).empty()) << "the link closed with nothing sent";
}

// --- How the connection thread starts and gives up.

std::vector<std::pair<WORD, std::wstring>> g_events;

HANDLE WINAPI FakeRegister(LPCWSTR, LPCWSTR)
{
    return reinterpret_cast<HANDLE>(1);
}

BOOL WINAPI FakeReport(HANDLE, WORD wType, WORD, DWORD, PSID, WORD wCount, DWORD, LPCWSTR* strings, LPVOID)
{
    g_events.emplace_back(wType, wCount > 0 && strings[0] != nullptr ? strings[0] : L"");
    return TRUE;
}

const KvEventLogApi kFakeEventLog = {FakeRegister, FakeReport};

class ConnectionStart : public ::testing::Test
{
protected:
    ConnectionStart() { KvSetEventLogApi(&kFakeEventLog); }
    ~ConnectionStart() override
    {
        KvSetEventLogApi(nullptr);
        g_events.clear();
    }

    // Runs the connection thread to its end; false when it outlived dwMs.
    bool RunToEnd(TrayWindow& tray, DWORD dwMs = 30000)
    {
        HANDLE hThread = StartThread(ConnectionInfo, tray.window.get());
        const bool bEnded = WaitForSingleObject(hThread, dwMs) == WAIT_OBJECT_0;
        CloseHandle(hThread);
        return bEnded;
    }

    // The stand-in service "kvnxsv": 0 absent, 1 installed, 2 running.
    void ArrangeService(int nState)
    {
        m_service.Remove();
        if (nState >= 1)
        {
            ASSERT_TRUE(m_service.Install()) << GetLastError();
        }
        if (nState == 2)
        {
            ASSERT_TRUE(m_service.Start()) << GetLastError();
        }
    }

    kvtest::StandInService m_service;
};

// Nobody on the port and no answer to the port query: one event says why, and the agent closes.
TEST_F(ConnectionStart, GivingUpLeavesOneEventThatNamesTheServiceState)
{
    const struct
    {
        const char* name;
        int nServiceState;
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
        ArrangeService(c.nServiceState);
        g_events.clear();
        TrayWindow tray(ClosedPort());
        ASSERT_TRUE(RunToEnd(tray)) << c.name;
        EXPECT_NE(TrayWindow::kNone, tray.Take(WM_KV_QUIT)) << c.name;
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
