// Records per second through CKvSocket over loopback, next to a plain Winsock client of an echo
// peer of its own: the wrapper (trace blocks, the read loop, one send per record) should cost little.
#include "KvLogging.h"
#include "KvSocket.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

namespace
{

// A connect-notify record: the largest the service sends often.
constexpr int kRecordSize = 1592;

void NoDelay(SOCKET h)
{
    const BOOL bOn = TRUE;
    setsockopt(h, IPPROTO_TCP, TCP_NODELAY, reinterpret_cast<const char*>(&bOn), sizeof bOn);
}

// A minimal echo peer on 127.0.0.1: sends back whatever arrives, until the client leaves.
class EchoPeer
{
public:
    EchoPeer()
    {
        WSADATA data;
        WSAStartup(MAKEWORD(2, 2), &data);
        m_hListen = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in addr = {};
        addr.sin_family = AF_INET;
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        bind(m_hListen, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
        listen(m_hListen, 1);
        int cb = sizeof addr;
        getsockname(m_hListen, reinterpret_cast<sockaddr*>(&addr), &cb);
        m_uPort = ntohs(addr.sin_port);
        m_thread = std::thread([this] { Serve(); });
    }
    ~EchoPeer()
    {
        m_thread.join();
        closesocket(m_hListen);
        WSACleanup();
    }
    EchoPeer(const EchoPeer&) = delete;
    EchoPeer& operator=(const EchoPeer&) = delete;

    unsigned Port() const { return m_uPort; }

private:
    void Serve()
    {
        SOCKET h = accept(m_hListen, nullptr, nullptr);
        NoDelay(h);
        std::vector<char> buf(65536);
        for (;;)
        {
            const int n = recv(h, buf.data(), static_cast<int>(buf.size()), 0);
            if (n <= 0 || send(h, buf.data(), n, 0) != n)
                break;
        }
        closesocket(h);
    }

    SOCKET m_hListen = INVALID_SOCKET;
    unsigned m_uPort = 0;
    std::thread m_thread;
};

// A client of one echo peer: sends a record and reads it back, one way or another.
class EchoClient
{
public:
    virtual ~EchoClient() = default;
    virtual bool Echo() = 0;

protected:
    std::vector<char> m_out = std::vector<char>(kRecordSize, 'r');
    std::vector<char> m_in = std::vector<char>(kRecordSize);
};

// One send and one ReadExact per record: the same calls as the plain client, so the difference is
// the wrapper's own cost. bIdFirst reads the type id first and then the rest, as the connection
// thread does, which costs a second recv per record.
class KvSocketClient : public EchoClient
{
public:
    KvSocketClient(unsigned uPort, bool bIdFirst) : m_bIdFirst(bIdFirst)
    {
        m_bConnected = m_sock.Connect(L"127.0.0.1", uPort, SOCK_STREAM, 0) != 0;
    }
    bool Connected() const { return m_bConnected; }
    bool Echo() override
    {
        if (!m_sock.Send(m_out.data(), kRecordSize))
            return false;
        if (m_bIdFirst)
            return m_sock.ReadExact(m_in.data(), 4) && m_sock.ReadExact(m_in.data() + 4, kRecordSize - 4);
        return m_sock.ReadExact(m_in.data(), kRecordSize) != 0;
    }

private:
    CKvSocket m_sock;
    bool m_bIdFirst;
    bool m_bConnected = false;
};

// The same exchange with bare Winsock calls.
class RawClient : public EchoClient
{
public:
    explicit RawClient(unsigned uPort)
    {
        WSADATA data;
        WSAStartup(MAKEWORD(2, 2), &data);
        m_h = socket(AF_INET, SOCK_STREAM, 0);
        NoDelay(m_h);
        sockaddr_in addr = {};
        addr.sin_family = AF_INET;
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        addr.sin_port = htons(static_cast<u_short>(uPort));
        m_bConnected = connect(m_h, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
    }
    ~RawClient() override
    {
        closesocket(m_h);
        WSACleanup();
    }
    bool Connected() const { return m_bConnected; }
    bool Echo() override
    {
        if (send(m_h, m_out.data(), kRecordSize, 0) != kRecordSize)
            return false;
        int nHave = 0;
        while (nHave < kRecordSize)
        {
            const int n = recv(m_h, m_in.data() + nHave, kRecordSize - nHave, 0);
            if (n <= 0)
                return false;
            nHave += n;
        }
        return true;
    }

private:
    SOCKET m_h = INVALID_SOCKET;
    bool m_bConnected = false;
};

double Now()
{
    LARGE_INTEGER now;
    LARGE_INTEGER frequency;
    QueryPerformanceCounter(&now);
    QueryPerformanceFrequency(&frequency);
    return static_cast<double>(now.QuadPart) / static_cast<double>(frequency.QuadPart);
}

double Median(std::vector<double> v)
{
    std::sort(v.begin(), v.end());
    return v.empty() ? 0.0 : v[v.size() / 2];
}

// The clients take turns in small batches, each leading in turn, and the figures are medians over
// the rounds: a busy moment of the shared machine (other builds, Wine's server) then spoils a few
// rounds rather than one client's whole total.
void EchoSideBySide(benchmark::State& state)
{
    constexpr int kBatch = 4;
    EchoPeer wholePeer;
    EchoPeer idFirstPeer;
    EchoPeer rawPeer;
    KvSocketClient whole(wholePeer.Port(), false);
    KvSocketClient idFirst(idFirstPeer.Port(), true);
    RawClient raw(rawPeer.Port());
    if (!whole.Connected() || !idFirst.Connected() || !raw.Connected())
    {
        state.SkipWithError("connect failed");
        return;
    }
    EchoClient* clients[3] = {&whole, &idFirst, &raw};
    std::vector<double> seconds[3];
    std::vector<double> ratio[2];
    int nFirst = 0;
    for (auto _ : state)
    {
        nFirst = (nFirst + 1) % 3;
        double round[3] = {};
        for (int k = 0; k < 3; ++k)
        {
            const int i = (nFirst + k) % 3;
            const double start = Now();
            for (int n = 0; n < kBatch; ++n)
            {
                if (!clients[i]->Echo())
                {
                    state.SkipWithError("echo failed");
                    return;
                }
            }
            round[i] = Now() - start;
            seconds[i].push_back(round[i]);
        }
        ratio[0].push_back(round[2] / round[0]);
        ratio[1].push_back(round[2] / round[1]);
    }
    state.counters["CKvSocket/s"] = kBatch / Median(seconds[0]);
    state.counters["CKvSocketIdFirst/s"] = kBatch / Median(seconds[1]);
    state.counters["raw/s"] = kBatch / Median(seconds[2]);
    state.counters["ratio"] = Median(ratio[0]);
    state.counters["ratioIdFirst"] = Median(ratio[1]);
}
BENCHMARK(EchoSideBySide)->UseRealTime()->Unit(benchmark::kMillisecond);

// Prints the usual table, then the side-by-side rates in words.
class SummaryReporter : public benchmark::ConsoleReporter
{
public:
    void ReportRuns(const std::vector<Run>& runs) override
    {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& run : runs)
        {
            if (run.error_occurred)
                continue;
            auto value = [&run](const char* name)
            {
                auto it = run.counters.find(name);
                return it != run.counters.end() ? it->second.value : 0.0;
            };
            std::printf("\nRecords of %d bytes echoed over loopback, side by side (medians of the rounds):\n",
                        kRecordSize);
            std::printf("  CKvSocket, one read per record  %8.0f records/s = %5.2f x raw\n",
                        value("CKvSocket/s"), value("ratio"));
            std::printf("  CKvSocket, type id then rest    %8.0f records/s = %5.2f x raw\n",
                        value("CKvSocketIdFirst/s"), value("ratioIdFirst"));
            std::printf("  raw Winsock                     %8.0f records/s\n", value("raw/s"));
        }
    }
};

} // namespace

int main(int argc, char** argv)
{
    // TRACE off, as in the field; INFO goes nowhere.
    log4cxx::Logger::getRootLogger()->setLevel(log4cxx::Level::getWarn());

    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    SummaryReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    return 0;
}
