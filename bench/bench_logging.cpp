// What a KvLogBlock costs with TRACE off, next to the bare level test it is meant to amount to:
// both in turns of a batch, medians over the turns and their ratio side by side.
#include "bench_median.h"
#include "bench_summary.h"
#include "KvLogging.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <vector>

namespace
{

log4cxx::LoggerPtr logger(KvGetLogger(KvLoggerName::KVNXSTWindow));
// No configuration: TRACE off and no appenders, as in the field.
const bool traceOff = (log4cxx::Logger::getRootLogger()->setLevel(log4cxx::Level::getInfo()), true);

// Nanoseconds a call of f over a batch.
template <typename F> double BatchNs(F f)
{
    constexpr int kBatch = 1000;
    const auto start = std::chrono::steady_clock::now();
    for (int n = 0; n < kBatch; ++n)
        f();
    return std::chrono::duration<double, std::nano>(std::chrono::steady_clock::now() - start).count() / kBatch;
}

// isTraceEnabledFor is the test a block makes.
template <typename Char> void BlockNextToLevelTest(benchmark::State& state, const Char* name)
{
    const char* szKind = sizeof(Char) == 1 ? "narrow" : "wide";
    std::vector<double> block, bare, ratio;
    for (auto _ : state)
    {
        block.push_back(BatchNs(
            [&]
            {
                KvLogBlock logBlock(logger, name);
                benchmark::DoNotOptimize(logBlock);
            }));
        bare.push_back(BatchNs([] { benchmark::DoNotOptimize(log4cxx::Logger::isTraceEnabledFor(logger)); }));
        ratio.push_back(block.back() / bare.back());
    }
    state.counters["block_ns"] = Median(block);
    state.counters["level_test_ns"] = Median(bare);
    state.counters["ratio"] = Median(ratio);
    SummaryRow(std::string("log block with TRACE off, ") + szKind + " name", Median(block), "bare level test",
               Median(bare), "ns");
}
BENCHMARK_CAPTURE(BlockNextToLevelTest, WideName, L"CTaskBarWindow::NotifyConnect");
BENCHMARK_CAPTURE(BlockNextToLevelTest, NarrowName, "CTaskBarWindow::NotifyConnect");

} // namespace

BENCHMARK_MAIN();
