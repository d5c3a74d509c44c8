// The permission question in this process: CreatePermissionDialog on a thread of its own, on a
// desktop of the test's own, against a datagram peer played by the test: its countdown, and the
// requests it answers without asking. The answers are checked by the simulator's own record check;
// the console state, the beeps and the flashes come through the system table. What it shows and
// the user's answers are proved end to end (test_permission_e2e.cpp).
#include "test_agent_support.h"
#include "test_log_capture.h"

#include "ClientPermissionDialog.h"
#include "KVNXST.h"
#include "KvServiceMessages.h"
#include "KvSystemApi.h"
#include "SimRecords.h"
#include "UiDriver.h"
#include "UtilWTS.h"
#include "resource.h"

#include <winsock2.h>
#include <ws2tcpip.h>

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
        WSADATA wsa;
        WSAStartup(MAKEWORD(2, 2), &wsa);
        m_s = socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP);
        sockaddr_in at = {};
        at.sin_family = AF_INET;
        at.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        int cb = sizeof at;
        if (bind(m_s, reinterpret_cast<sockaddr*>(&at), sizeof at) == 0 &&
            getsockname(m_s, reinterpret_cast<sockaddr*>(&at), &cb) == 0)
            m_nPort = ntohs(at.sin_port);
    }
    ~Peer()
    {
        closesocket(m_s);
        WSACleanup();
    }
    Peer(const Peer&) = delete;
    Peer& operator=(const Peer&) = delete;

    int Port() const { return m_nPort; }
    // One datagram within ms; empty when none came.
    std::vector<std::uint8_t> Receive(DWORD ms)
    {
        setsockopt(m_s, SOL_SOCKET, SO_RCVTIMEO, reinterpret_cast<const char*>(&ms), sizeof ms);
        std::vector<std::uint8_t> data(65536);
        int cbFrom = sizeof m_from;
        const int n = recvfrom(m_s, reinterpret_cast<char*>(data.data()), static_cast<int>(data.size()), 0,
                               reinterpret_cast<sockaddr*>(&m_from), &cbFrom);
        data.resize(n > 0 ? static_cast<size_t>(n) : 0);
        return data;
    }
    bool Send(const void* p, int cb)
    {
        return sendto(m_s, static_cast<const char*>(p), cb, 0, reinterpret_cast<const sockaddr*>(&m_from),
                      sizeof m_from) == cb;
    }
    // Answers the query with this request.
    bool Ask(const MSG_PERMISSION_RECORD& request)
    {
        const std::vector<std::uint8_t> query = Receive(kWait);
        return kvsim::CheckPermissionQuery(query.data(), query.size()).empty() &&
               Send(&request, sizeof request);
    }
    // The answer, checked as the service's simulator checks it; 0 when there is none or it is bad.
    std::uint32_t Answer(const MSG_PERMISSION_RECORD& request, std::string* pProblems)
    {
        const std::vector<std::uint8_t> answer = Receive(kWait);
        for (const std::string& p : kvsim::CheckPermissionAnswer(answer.data(), answer.size(), request))
            *pProblems += p + "\n";
        return pProblems->empty() ? reinterpret_cast<const MSG_PERMISSION_RECORD*>(answer.data())->dwResult
                                  : 0;
    }

private:
    SOCKET m_s = INVALID_SOCKET;
    int m_nPort = 0;
    sockaddr_in m_from = {};
};

std::unique_ptr<MSG_PERMISSION_RECORD> Request(const char16_t* text, std::uint32_t bKeep = 0,
                                               std::uint32_t bDenyDefault = 0, std::uint32_t dwVariant = 0)
{
    auto rec = std::make_unique<MSG_PERMISSION_RECORD>();
    kvsim::BuildPermissionRequest(*rec, KV_PERMISSION_QUERY_TYPE, text, bKeep, bDenyDefault, dwVariant);
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
    std::string problems;
    EXPECT_EQ(KV_PERMISSION_TIMEOUT, m_peer.Answer(*request, &problems)) << problems;
    EXPECT_EQ(1, shown.get());
    EXPECT_EQ((std::vector<BOOL>{TRUE, FALSE, TRUE, FALSE, TRUE, FALSE}), m_seen.flashes);
}

TEST_F(PermissionDialog, NobodyToAskAnswersAtOnceWithoutAWindow)
{
    for (const wchar_t* szInput : {L"Winlogon", L"Other"})
    {
        m_seen.inputDesktop = szInput;
        auto request = Request(u"dave asks");
        std::future<int> shown = Start(m_peer.Port());
        ASSERT_TRUE(m_peer.Ask(*request));
        std::string problems;
        EXPECT_EQ(KV_PERMISSION_NOBODY, m_peer.Answer(*request, &problems)) << problems;
        EXPECT_EQ(0, shown.get());
        EXPECT_EQ(nullptr, Dialog(0));
        EXPECT_EQ(0, m_seen.nBeeps.load());
    }
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
    ASSERT_TRUE(m_peer.Send(shortRecord.data(), static_cast<int>(shortRecord.size())));
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
