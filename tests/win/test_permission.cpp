// The permission question in this process, on a desktop of the test's own, against a datagram peer
// played by the test with the simulator's record checks: its countdown, and the requests it answers
// without asking. The console state, beeps and flashes come through the system table. What it shows
// and the user's answers are proved end to end (test_permission_e2e.cpp).
#include "test_agent_support.h"
#include "test_log_capture.h"

#include "ClientPermissionDialog.h"
#include "KVNXST.h"
#include "KvServiceMessages.h"
#include "KvSystemApi.h"
#include "SimRecords.h"
#include "SimSocket.h"
#include "UiDriver.h"
#include "UtilWTS.h"
#include "resource.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

using namespace kvtest;

namespace
{

constexpr DWORD kWait = 10000;

// What the dialog asked of the system table.
struct Seen
{
    std::atomic<int> nBeeps{0};
    std::mutex mutex;
    std::vector<BOOL> flashes;
    std::wstring inputDesktop = L"Default";
};
Seen* g_pSeen = nullptr;

KvSystemApi FakeApi()
{
    KvSystemApi api = KvDefaultSystemApi();
    api.pfnGetInputDesktopName = [](wchar_t* szName, DWORD cchName) -> BOOL
    { return wcsncpy_s(szName, cchName, g_pSeen->inputDesktop.c_str(), _TRUNCATE) == 0; };
    api.pfnWTSQuerySessionInformationW = [](HANDLE, DWORD, WTS_INFO_CLASS, LPWSTR* ppBuffer,
                                            DWORD* pcb) -> BOOL
    {
        // WTSActive (0) for the connect state.
        *ppBuffer = static_cast<LPWSTR>(LocalAlloc(LPTR, sizeof(KV_WTSINFOEXW)));
        *pcb = sizeof(KV_WTSINFOEXW);
        return TRUE;
    };
    api.pfnWTSFreeMemory = [](PVOID p) { LocalFree(p); };
    api.pfnMessageBeep = [](UINT) -> BOOL { return ++g_pSeen->nBeeps != 0; };
    api.pfnFlashWindow = [](HWND, BOOL bInvert) -> BOOL
    {
        std::lock_guard<std::mutex> lock(g_pSeen->mutex);
        g_pSeen->flashes.push_back(bInvert);
        return TRUE;
    };
    return api;
}

// The service's end of the exchange: a loopback datagram socket that answers whoever asked.
class Peer
{
public:
    Peer()
    {
        std::string error;
        m_bOpen = kvsim::SocketStartup() && kvsim::OpenLoopback(m_s, false, false, 0, error);
    }

    int Port() const { return m_bOpen ? kvsim::LocalPort(m_s) : 0; }
    // One datagram within ms; empty when none came.
    std::vector<std::uint8_t> Receive(DWORD ms)
    {
        kvsim::SetReceiveTimeout(m_s, ms);
        std::vector<std::uint8_t> data(65536);
        data.resize(
            static_cast<size_t>(std::max(0L, kvsim::RecvFrom(m_s, data.data(), data.size(), m_from))));
        return data;
    }
    bool Send(const void* p, size_t cb)
    {
        return kvsim::SendTo(m_s, static_cast<const std::uint8_t*>(p), cb, m_from);
    }
    // Answers the query with this request.
    bool Ask(const MSG_PERMISSION_RECORD& request)
    {
        const std::vector<std::uint8_t> query = Receive(kWait);
        return kvsim::CheckPermissionQuery(query.data(), query.size()).empty() &&
               Send(&request, sizeof request);
    }
    // The answer, checked as the service's simulator checks it; 0 when there is none or it is bad.
    std::uint32_t Answer(const MSG_PERMISSION_RECORD& request)
    {
        const std::vector<std::uint8_t> answer = Receive(kWait);
        const std::vector<std::string> problems =
            kvsim::CheckPermissionAnswer(answer.data(), answer.size(), request);
        for (const std::string& p : problems)
            ADD_FAILURE() << p;
        return problems.empty() ? reinterpret_cast<const MSG_PERMISSION_RECORD*>(answer.data())->dwResult : 0;
    }

private:
    kvsim::Socket m_s;
    kvsim::PeerAddress m_from;
    bool m_bOpen = false;
};

std::unique_ptr<MSG_PERMISSION_RECORD> Request(const char16_t* text)
{
    auto rec = std::make_unique<MSG_PERMISSION_RECORD>();
    kvsim::BuildPermissionRequest(*rec, KV_PERMISSION_QUERY_TYPE, text, 0, 0, 0);
    return rec;
}

std::wstring Countdown(int nSeconds)
{
    wchar_t sz[MAX_PATH] = {};
    _snwprintf_s(sz, _TRUNCATE, ResourceText(g_hResInstance, IDS_PERMISSION_COUNTDOWN_FMT).c_str(), nSeconds);
    return sz;
}

class PermissionDialog : public ::testing::Test
{
protected:
    void SetUp() override
    {
        g_pSeen = &m_seen;
        g_hInstance = GetModuleHandleW(nullptr);
        g_hResInstance = LoadResourceLibraryFrom(ModuleFolder().c_str(), nullptr);
        wcscpy_s(g_szDesktopName, L"Default");
        g_nSessionId = 1;
        ASSERT_NE(nullptr, g_hResInstance);
        ASSERT_TRUE(m_desktop.Created());
        ASSERT_NE(0, m_peer.Port());
    }
    void TearDown() override
    {
        FreeLibrary(g_hResInstance);
        g_hResInstance = nullptr;
        g_pSeen = nullptr;
    }

    // CreatePermissionDialog(port, 2) on a thread on the test's desktop.
    std::future<int> Start(int nPort)
    {
        return std::async(std::launch::async,
                          [this, nPort]
                          {
                              m_desktop.SetOnThisThread();
                              return CreatePermissionDialog(nPort, AF_INET);
                          });
    }
    // The dialog once its countdown has begun.
    HWND Dialog(DWORD ms = kWait) const
    {
        HWND hDlg = kvui::WaitForWindow({L"#32770", L"", 0, m_desktop.Name(), true}, ms);
        const ULONGLONG end = GetTickCount64() + ms;
        while (hDlg != nullptr && kvui::ReadText(GetDlgItem(hDlg, 1014)).value_or(L"").empty() &&
               GetTickCount64() < end)
            Sleep(10);
        return hDlg;
    }
    Seen m_seen;
    KvSystemApi m_api = FakeApi();
    KvScopedSystemApi m_scoped{m_api};
    TestDesktop m_desktop;
    Peer m_peer;
};

} // namespace

TEST_F(PermissionDialog, CountsDownBeepingAndFlashingInTheLastSixSecondsThenAnswersTimeout)
{
    auto request = Request(u"carol asks");
    std::future<int> shown = Start(m_peer.Port());
    ASSERT_TRUE(m_peer.Ask(*request));
    HWND hDlg = Dialog();
    ASSERT_NE(nullptr, hDlg);

    // The real timer may tick in between: each step reads the seconds the dialog shows.
    int nShown = 120;
    for (int nTicks = 0; nShown > 0 && nTicks < 130; ++nTicks)
    {
        SendMessageW(hDlg, WM_TIMER, KV_TIMER_PERMISSION_COUNTDOWN, 0);
        // The last tick ends the dialog, which may be gone before its text can be read.
        const std::optional<std::wstring> read = kvui::ReadText(GetDlgItem(hDlg, 1014));
        int n = 0;
        if (read.has_value())
            for (n = 120; n >= 0 && Countdown(n) != *read; --n)
            {
            }
        else
            ASSERT_EQ(1, nShown) << "the dialog went early";
        ASSERT_GE(n, 0) << "not a countdown line: " << Narrow(read.value_or(L""));
        ASSERT_LE(n, nShown - 1);
        nShown = n;
        const int nLastSix = std::max(0, std::min(6, 7 - nShown));
        ASSERT_EQ(1 + nLastSix, m_seen.nBeeps.load()) << "at " << nShown << " seconds left";
    }
    EXPECT_EQ(KV_PERMISSION_TIMEOUT, m_peer.Answer(*request));
    EXPECT_EQ(1, shown.get());
    EXPECT_EQ((std::vector<BOOL>{TRUE, FALSE, TRUE, FALSE, TRUE, FALSE}), m_seen.flashes);
}

// Who counts as at the console is the start-up test's table (test_startup.cpp).
TEST_F(PermissionDialog, NobodyToAskAnswersAtOnceWithoutAWindow)
{
    m_seen.inputDesktop = L"Winlogon";
    auto request = Request(u"dave asks");
    std::future<int> shown = Start(m_peer.Port());
    ASSERT_TRUE(m_peer.Ask(*request));
    EXPECT_EQ(KV_PERMISSION_NOBODY, m_peer.Answer(*request));
    EXPECT_EQ(0, shown.get());
    EXPECT_EQ(nullptr, Dialog(0));
    EXPECT_EQ(0, m_seen.nBeeps.load());
}

TEST_F(PermissionDialog, BadPortsShortRequestsAndASilentServiceEndQuietly)
{
    LogCapture log;
    ASSERT_TRUE(log.Configured());
    for (int nPort : {0, -1, 65536})
    {
        EXPECT_EQ(0, Start(nPort).get());
        EXPECT_EQ(1u,
                  log.Count("WARN", "ClientPermissionDialog", "No port to ask on: " + std::to_string(nPort)));
    }

    std::future<int> shown = Start(m_peer.Port());
    ASSERT_FALSE(m_peer.Receive(kWait).empty());
    const std::vector<std::uint8_t> shortRecord(8739, 0);
    ASSERT_TRUE(m_peer.Send(shortRecord.data(), shortRecord.size()));
    EXPECT_EQ(0, shown.get());

    // Nobody answers the query: the socket's time-out ends the wait.
    shown = Start(m_peer.Port());
    ASSERT_FALSE(m_peer.Receive(kWait).empty());
    EXPECT_EQ(0, shown.get());
    // Both logged; the socket error in the line is not asserted, as the trace lines of the read
    // may have replaced it.
    EXPECT_EQ(2u, CountContaining(log.Lines(), "|No request of 8740 bytes came."));
    EXPECT_EQ(nullptr, Dialog(0));
    EXPECT_TRUE(m_peer.Receive(200).empty()) << "no answer goes out";
}
