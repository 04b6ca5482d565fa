#include "log/Log.h"
#include "support/AllocationCount.h"
#include "support/NullSink.h"

#include <benchmark/benchmark.h>

#include <spdlog/logger.h>
#include <spdlog/sinks/null_sink.h>

#include <atomic>
#include <memory>

using namespace Halden::Tavro;

namespace
{

spdlog::logger makeSpdlogLogger()
{
    return spdlog::logger("bench", std::make_shared<spdlog::sinks::null_sink_mt>()); // level info, like ours
}

void relaxedRead(benchmark::State& state)
{
    std::atomic<int> threshold{3};
    benchmark::DoNotOptimize(&threshold);
    for (auto _ : state)
    {
        benchmark::DoNotOptimize(threshold.load(std::memory_order_relaxed));
    }
}
BENCHMARK(relaxedRead);

void logDisabled(benchmark::State& state)
{
    Log::Logger const logger("Halden::Tavro::Bench", "", std::make_shared<Bench::NullSink>());
    std::size_t const before = Bench::allocations();
    for (auto _ : state)
    {
        TAVRO_LOG_TO(logger, Log::Severity::Trace, "~step %d of %s", 5, "nine");
    }
    state.counters["allocations"] = static_cast<double>(Bench::allocations() - before);
}
BENCHMARK(logDisabled);

void logDisabledSpdlog(benchmark::State& state)
{
    spdlog::logger logger = makeSpdlogLogger();
    for (auto _ : state)
    {
        logger.trace("~step {} of {}", 5, "nine");
    }
}
BENCHMARK(logDisabledSpdlog);

void logEnabled(benchmark::State& state)
{
    Log::Logger const logger("Halden::Tavro::Bench", "", std::make_shared<Bench::NullSink>());
    for (auto _ : state)
    {
        TAVRO_LOG_TO(logger, Log::Severity::Info, "~step %d of %s", 5, "nine");
    }
}
BENCHMARK(logEnabled);

void logEnabledSpdlog(benchmark::State& state)
{
    spdlog::logger logger = makeSpdlogLogger();
    for (auto _ : state)
    {
        logger.info("~step {} of {}", 5, "nine");
    }
}
BENCHMARK(logEnabledSpdlog);

}
