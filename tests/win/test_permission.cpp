// The permission question in this process: CreatePermissionDialog on a thread of its own, on a
// desktop of the test's own, against a datagram peer played by the test. The answers are checked
// by the simulator's own record check; the console state, the beeps and the flashes come through
// the system table.
#include "test_agent_support.h"
#include "test_log_capture.h"

#include "ClientPermissionDialog.h"
#include "KVNXST.h"
#include "KvServiceMessages.h"
#include "KvSystemApi.h"
#include "NotifyDialog.h"
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
    // Where SetNotifyDialogLocation puts a window of this size on the test's desktop.
    POINT NoticeCorner(const RECT& rcSize) const
    {
        POINT at = {};
        std::thread(
            [&]
            {
                m_desktop.SetOnThisThread();
                HWND hProbe = CreateWindowExW(0, L"STATIC", L"", WS_POPUP, 0, 0, rcSize.right - rcSize.left,
                                              rcSize.bottom - rcSize.top, nullptr, nullptr, nullptr, nullptr);
                SetNotifyDialogLocation(hProbe);
                RECT rc = {};
                GetWindowRect(hProbe, &rc);
                at = {rc.left, rc.top};
                DestroyWindow(hProbe);
            })
            .join();
        return at;
    }

    Seen m_seen;
    KvSystemApi m_api = FakeApi();
    KvScopedSystemApi m_scoped{m_api};
    TestDesktop m_desktop;
    Peer m_peer;
};

} // namespace

TEST_F(PermissionDialog, ShowsTheRequestAsTheServiceAsksAndAnswersWithTheButtonPressed)
{
    const struct
    {
        std::u16string text; // 4,096 units: the array full, no terminator
        std::uint32_t bKeep, bDenyDefault, dwVariant;
        int nButton;
        std::uint32_t dwExpected;
    } cases[] = {
        {u"alice at 10.0.0.7 asks", 0, 0, 0, IDOK, KV_PERMISSION_ALLOWED},
        {u"bob asks", 1, 1, 1, IDCANCEL, KV_PERMISSION_DENIED},
        {std::u16string(4096, u'x'), 1, 0, 0, IDCANCEL, KV_PERMISSION_DENIED},
    };
    for (const auto& c : cases)
    {
        SCOPED_TRACE("case " + std::to_string(&c - cases));
        auto request = Request(u"", c.bKeep, c.bDenyDefault, c.dwVariant);
        std::copy(c.text.begin(), c.text.end(), request->szRequest);
        std::future<int> shown = Start(m_peer.Port());
        ASSERT_TRUE(m_peer.Ask(*request));
        HWND hDlg = Dialog();
        ASSERT_NE(nullptr, hDlg);

        // Shown cut to what fits, never read past the record's array.
        const std::u16string shownText = c.text.substr(0, 4095);
        EXPECT_EQ(std::wstring(shownText.begin(), shownText.end()), kvui::ReadText(GetDlgItem(hDlg, 1001)));
        const std::wstring question = *kvui::ReadText(GetDlgItem(hDlg, 1002));
        EXPECT_EQ(0u, question.find(ResourceText(g_hResInstance, c.dwVariant == 0 ? 72 : 74))) << Narrow(question);
        EXPECT_EQ(Countdown(120), kvui::ReadText(GetDlgItem(hDlg, 1014)));
        const DWORD dwDef = static_cast<DWORD>(SendMessageW(hDlg, DM_GETDEFID, 0, 0));
        EXPECT_EQ(c.bDenyDefault != 0 ? IDCANCEL : IDOK, LOWORD(dwDef));
        EXPECT_EQ(WS_EX_TOPMOST, GetWindowLongW(hDlg, GWL_EXSTYLE) & WS_EX_TOPMOST);

        RECT rc = {};
        GetWindowRect(hDlg, &rc);
        const POINT expected = c.bKeep != 0 ? POINT{0, 0} : NoticeCorner(rc);
        EXPECT_EQ(expected.x, rc.left);
        EXPECT_EQ(expected.y, rc.top);

        ASSERT_TRUE(kvui::ClickButton(hDlg, c.nButton));
        std::string problems;
        EXPECT_EQ(c.dwExpected, m_peer.Answer(*request, &problems)) << problems;
        EXPECT_EQ(1, shown.get());
        EXPECT_EQ(1, m_seen.nBeeps.load()); // on showing
        m_seen.nBeeps = 0;
    }
}

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
