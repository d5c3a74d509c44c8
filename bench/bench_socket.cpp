// Records per second through CKvSocket over loopback, next to a plain Winsock client of an echo
// peer of its own: the wrapper (trace blocks, the read loop, one send per record) should cost little.
#include "bench_median.h"
#include "bench_summary.h"
#include "KvLogging.h"
#include "KvSocket.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <thread>
#include <vector>

namespace
{

// TRACE off, as in the field; INFO goes nowhere.
const bool traceOff = (log4cxx::Logger::getRootLogger()->setLevel(log4cxx::Level::getWarn()), true);
const bool winsock = []
{
    WSADATA data;
    return WSAStartup(MAKEWORD(2, 2), &data) == 0;
}();

// A connect-notify record: the largest the service sends often.
constexpr int kRecordSize = 1592;

struct RawSocket
{
    RawSocket(SOCKET hSocket = socket(AF_INET, SOCK_STREAM, 0)) : h(hSocket)
    {
        const BOOL bOn = TRUE;
        setsockopt(h, IPPROTO_TCP, TCP_NODELAY, reinterpret_cast<const char*>(&bOn), sizeof bOn);
    }
    ~RawSocket() { closesocket(h); }
    SOCKET h;
};

// A minimal echo peer on 127.0.0.1: sends back whatever arrives, until its one client leaves.
struct EchoPeer
{
    EchoPeer()
    {
        int cb = sizeof addr;
        bind(listener.h, reinterpret_cast<sockaddr*>(&addr), cb);
        listen(listener.h, 1);
        getsockname(listener.h, reinterpret_cast<sockaddr*>(&addr), &cb);
        server = std::thread(
            [this]
            {
                RawSocket client(accept(listener.h, nullptr, nullptr));
                char buf[65536];
                for (int n; (n = recv(client.h, buf, sizeof buf, 0)) > 0 && send(client.h, buf, n, 0) == n;)
                {
                }
            });
    }
    ~EchoPeer()
    {
        closesocket(listener.h); // also ends a wait for a client that never came
        listener.h = INVALID_SOCKET;
        server.join();
    }

    sockaddr_in addr = {AF_INET, 0, {{{127, 0, 0, 1}}}, {}};
    RawSocket listener;
    std::thread server;
};


// The clients take turns in small batches, leading in turn, and the figures are medians over the
// rounds: a busy moment of the shared machine then spoils a few rounds, not one client's total.
// CKvSocket makes the same calls as the raw client, one send and one read per record, so the
// difference is the wrapper's own cost.
void EchoSideBySide(benchmark::State& state)
{
    constexpr int kBatch = 4;
    EchoPeer peers[2];
    CKvSocket sock;
    RawSocket raw;
    if (!sock.Connect(L"127.0.0.1", ntohs(peers[0].addr.sin_port), SOCK_STREAM, 0) ||
        connect(raw.h, reinterpret_cast<sockaddr*>(&peers[1].addr), sizeof peers[1].addr) != 0)
        return state.SkipWithError("connect failed");
    char out[kRecordSize] = {'r'}, in[kRecordSize];
    const std::function<bool()> echo[2] = {
        [&] { return sock.Send(out, kRecordSize) && sock.ReadExact(in, kRecordSize); },
        [&]
        {
            if (send(raw.h, out, kRecordSize, 0) != kRecordSize)
                return false;
            for (int nHave = 0, n = 0; nHave < kRecordSize; nHave += n)
                if ((n = recv(raw.h, in + nHave, kRecordSize - nHave, 0)) <= 0)
                    return false;
            return true;
        }};
    std::vector<double> seconds[2], ratio;
    for (auto _ : state)
    {
        double round[2] = {};
        for (size_t i : {ratio.size() % 2, 1 - ratio.size() % 2})
        {
            const auto start = std::chrono::steady_clock::now();
            for (int n = 0; n < kBatch; ++n)
                if (!echo[i]())
                    return state.SkipWithError("echo failed");
            round[i] = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
            seconds[i].push_back(round[i]);
        }
        ratio.push_back(round[1] / round[0]);
    }
    state.counters["CKvSocket/s"] = kBatch / Median(seconds[0]);
    state.counters["raw/s"] = kBatch / Median(seconds[1]);
    state.counters["ratio"] = Median(ratio);
    SummaryRow("CKvSocket echo of 1592-byte records", kBatch / Median(seconds[0]), "raw Winsock client",
               kBatch / Median(seconds[1]), "/s");
}
BENCHMARK(EchoSideBySide)->UseRealTime()->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
