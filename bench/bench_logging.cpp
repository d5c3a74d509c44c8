// What a KvLogBlock costs with TRACE off, next to the bare level test it is meant to amount to.
#include "KvLogging.h"

#include <benchmark/benchmark.h>

namespace
{

log4cxx::LoggerPtr logger(KvGetLogger(KvLoggerName::KVNXSTWindow));
// No configuration: TRACE off and no appenders, as in the field.
const bool traceOff = (log4cxx::Logger::getRootLogger()->setLevel(log4cxx::Level::getInfo()), true);

// isTraceEnabledFor is the test a block makes; isTraceEnabled asks the repository as well.
template <typename Test> void BareLevelTest(benchmark::State& state, Test test)
{
    for (auto _ : state)
        benchmark::DoNotOptimize(test());
}
BENCHMARK_CAPTURE(BareLevelTest, IsTraceEnabledFor,
                  [] { return log4cxx::Logger::isTraceEnabledFor(logger); });
BENCHMARK_CAPTURE(BareLevelTest, IsTraceEnabled, [] { return logger->isTraceEnabled(); });

template <typename Char> void KvLogBlockTraceOff(benchmark::State& state, const Char* name)
{
    for (auto _ : state)
    {
        KvLogBlock logBlock(logger, name);
        benchmark::DoNotOptimize(logBlock);
    }
}
BENCHMARK_CAPTURE(KvLogBlockTraceOff, WideName, L"CTaskBarWindow::NotifyConnect");
BENCHMARK_CAPTURE(KvLogBlockTraceOff, NarrowName, "CTaskBarWindow::NotifyConnect");

} // namespace

BENCHMARK_MAIN();
