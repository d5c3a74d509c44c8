// Records per second through CKvSocket over loopback, next to a plain Winsock client of the same
// echo peer: the wrapper (trace blocks, the read loop, one send per record) should cost little.
#include "KvLogging.h"
#include "KvSocket.h"

#include <benchmark/benchmark.h>

#include <cstdio>
#include <map>
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

void SetRate(benchmark::State& state)
{
    state.counters["records/s"] =
        benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
}

// One send and one ReadExact per record: the same calls as the plain client, so the difference is
// the wrapper's own cost. bIdFirst reads the type id first and then the rest, as the connection
// thread does; that costs a second recv per record, on either client.
void EchoThroughCKvSocket(benchmark::State& state, bool bIdFirst)
{
    EchoPeer peer;
    CKvSocket sock;
    if (!sock.Connect(L"127.0.0.1", peer.Port(), SOCK_STREAM, 0))
    {
        state.SkipWithError("connect failed");
        return;
    }
    std::vector<char> out(kRecordSize, 'r');
    std::vector<char> in(kRecordSize);
    for (auto _ : state)
    {
        if (!sock.Send(out.data(), kRecordSize))
        {
            state.SkipWithError("send failed");
            break;
        }
        const bool bOk = bIdFirst
                             ? sock.ReadExact(in.data(), 4) && sock.ReadExact(in.data() + 4, kRecordSize - 4)
                             : sock.ReadExact(in.data(), kRecordSize);
        if (!bOk)
        {
            state.SkipWithError("read failed");
            break;
        }
    }
    SetRate(state);
}

void CKvSocketEcho(benchmark::State& state)
{
    EchoThroughCKvSocket(state, false);
}
BENCHMARK(CKvSocketEcho)->UseRealTime()->Repetitions(7);

void CKvSocketEchoIdFirst(benchmark::State& state)
{
    EchoThroughCKvSocket(state, true);
}
BENCHMARK(CKvSocketEchoIdFirst)->UseRealTime()->Repetitions(7);

// The same exchange with bare Winsock calls.
void RawWinsockEcho(benchmark::State& state)
{
    EchoPeer peer;
    WSADATA data;
    WSAStartup(MAKEWORD(2, 2), &data);
    SOCKET h = socket(AF_INET, SOCK_STREAM, 0);
    NoDelay(h);
    sockaddr_in addr = {};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = htons(static_cast<u_short>(peer.Port()));
    if (connect(h, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0)
    {
        state.SkipWithError("connect failed");
        closesocket(h);
        WSACleanup();
        return;
    }
    std::vector<char> out(kRecordSize, 'r');
    std::vector<char> in(kRecordSize);
    for (auto _ : state)
    {
        if (send(h, out.data(), kRecordSize, 0) != kRecordSize)
        {
            state.SkipWithError("send failed");
            break;
        }
        int nHave = 0;
        while (nHave < kRecordSize)
        {
            const int n = recv(h, in.data() + nHave, kRecordSize - nHave, 0);
            if (n <= 0)
                break;
            nHave += n;
        }
        if (nHave < kRecordSize)
        {
            state.SkipWithError("recv failed");
            break;
        }
    }
    closesocket(h);
    WSACleanup();
    SetRate(state);
}
BENCHMARK(RawWinsockEcho)->UseRealTime()->Repetitions(7);

// Prints the usual table and keeps each benchmark's rate for the ratio.
class RatioReporter : public benchmark::ConsoleReporter
{
public:
    void ReportRuns(const std::vector<Run>& runs) override
    {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& run : runs)
        {
            // Medians, because the loopback under Wine is shared with whatever else runs.
            auto it = run.counters.find("records/s");
            if (run.run_type == Run::RT_Aggregate && run.aggregate_name == "median" && !run.error_occurred &&
                it != run.counters.end())
                m_rate[run.run_name.function_name] = it->second.value;
        }
    }

    void PrintRatio(const char* name, const char* base) const
    {
        auto n = m_rate.find(name);
        auto b = m_rate.find(base);
        if (n == m_rate.end() || b == m_rate.end() || b->second <= 0)
            return;
        std::printf("%-28s %10.0f records/s = %5.2f x %s (%.0f records/s)\n", name, n->second,
                    n->second / b->second, base, b->second);
    }

private:
    std::map<std::string, double> m_rate;
};

} // namespace

int main(int argc, char** argv)
{
    // TRACE off, as in the field.
    log4cxx::Logger::getRootLogger()->setLevel(log4cxx::Level::getInfo());

    // The two clients take turns, so a busy moment of the machine hits both alike.
    std::vector<char*> args(argv, argv + argc);
    char interleave[] = "--benchmark_enable_random_interleaving=true";
    args.insert(args.begin() + 1, interleave);
    argc = static_cast<int>(args.size());
    argv = args.data();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();

    std::printf("\nRecords of %d bytes echoed over loopback, medians of the repetitions:\n", kRecordSize);
    reporter.PrintRatio("CKvSocketEcho", "RawWinsockEcho");
    reporter.PrintRatio("CKvSocketEchoIdFirst", "RawWinsockEcho");
    return 0;
}
