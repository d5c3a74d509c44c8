// What a KvLogBlock costs with TRACE off, next to the bare level test it is meant to amount to.
#include "KvLogging.h"

#include <benchmark/benchmark.h>

#include <cstdio>
#include <map>
#include <string>

namespace
{

log4cxx::LoggerPtr logger(KvGetLogger(KvLoggerName::KVNXSTWindow));

void BareIsTraceEnabled(benchmark::State& state)
{
    for (auto _ : state)
        benchmark::DoNotOptimize(logger->isTraceEnabled());
}
BENCHMARK(BareIsTraceEnabled);

// The test the LOG4CXX_ macros make first: the logger's cached threshold.
void IsTraceEnabledFor(benchmark::State& state)
{
    for (auto _ : state)
        benchmark::DoNotOptimize(log4cxx::Logger::isTraceEnabledFor(logger));
}
BENCHMARK(IsTraceEnabledFor);

void KvLogBlockWideName(benchmark::State& state)
{
    for (auto _ : state)
    {
        KvLogBlock logBlock(logger, L"CTaskBarWindow::NotifyConnect");
        benchmark::DoNotOptimize(logBlock);
    }
}
BENCHMARK(KvLogBlockWideName);

void KvLogBlockNarrowName(benchmark::State& state)
{
    for (auto _ : state)
    {
        KvLogBlock logBlock(logger, "CTaskBarWindow::NotifyConnect");
        benchmark::DoNotOptimize(logBlock);
    }
}
BENCHMARK(KvLogBlockNarrowName);

// Prints the usual table and keeps each benchmark's time per iteration for the ratios.
class RatioReporter : public benchmark::ConsoleReporter
{
public:
    void ReportRuns(const std::vector<Run>& runs) override
    {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& run : runs)
        {
            if (run.run_type == Run::RT_Iteration && !run.error_occurred)
                m_ns[run.benchmark_name()] = run.GetAdjustedRealTime();
        }
    }

    void PrintRatio(const char* name, const char* base) const
    {
        auto n = m_ns.find(name);
        auto b = m_ns.find(base);
        if (n == m_ns.end() || b == m_ns.end() || b->second <= 0)
            return;
        std::printf("%-22s %8.2f ns  = %6.2f x %s (%.2f ns)\n", name, n->second, n->second / b->second, base,
                    b->second);
    }

private:
    std::map<std::string, double> m_ns;
};

} // namespace

int main(int argc, char** argv)
{
    // No configuration file: the root at INFO and no appenders, as with TRACE off in the field.
    log4cxx::Logger::getRootLogger()->setLevel(log4cxx::Level::getInfo());

    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();

    std::printf("\nTRACE off, time per call:\n");
    reporter.PrintRatio("KvLogBlockWideName", "BareIsTraceEnabled");
    reporter.PrintRatio("KvLogBlockNarrowName", "BareIsTraceEnabled");
    reporter.PrintRatio("KvLogBlockWideName", "IsTraceEnabledFor");
    return 0;
}
