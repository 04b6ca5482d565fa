#include "log/Log.h"
#include "support/AllocationCount.h"
#include "support/NullSink.h"

#include <benchmark/benchmark.h>

#include <spdlog/logger.h>
#include <spdlog/sinks/null_sink.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
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
    Log::Logger const logger("Halden::Tavro::Bench", "", std::make_shared<TestSupport::NullSink>());
    std::size_t const before = Bench::allocations();
    for (auto _ : state)
    {
        TAVRO_LOG_TO(logger, Log::Severity::Trace, "~step %d of %s", 5, "nine");
    }
    state.counters["allocations"] = static_cast<double>(Bench::allocations() - before);
}
BENCHMARK(logDisabled);

/// What stands before a text that is costly to compose.
void severityGuard(benchmark::State& state)
{
    for (auto _ : state)
    {
        benchmark::DoNotOptimize(Log::LoggerProxy::instance().isSeverityEnabled(Log::Severity::Trace));
    }
}
BENCHMARK(severityGuard);

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
    Log::Logger const logger("Halden::Tavro::Bench", "", std::make_shared<TestSupport::NullSink>());
    for (auto _ : state)
    {
        TAVRO_LOG_TO(logger, Log::Severity::Info, "~step %d of %s", 5, "nine");
    }
}
BENCHMARK(logEnabled);

/// As every class of the library logs: to whatever sink the process has.
void logEnabledProcessWide(benchmark::State& state)
{
    Log::Logger const logger("Halden::Tavro::Bench", "", std::make_shared<Log::LoggerImpl>());
    for (auto _ : state)
    {
        TAVRO_LOG_TO(logger, Log::Severity::Info, "~step %d of %s", 5, "nine");
    }
}
BENCHMARK(logEnabledProcessWide);

void logEnabledWithoutValues(benchmark::State& state)
{
    Log::Logger const logger("Halden::Tavro::Bench", "", std::make_shared<TestSupport::NullSink>());
    for (auto _ : state)
    {
        TAVRO_LOG_TO(logger, Log::Severity::Info, "~step 5 of nine");
    }
}
BENCHMARK(logEnabledWithoutValues);

/// What no enabled call can do without: the text, the time, and the call of the sink.
[[gnu::noinline, gnu::format(printf, 2, 3)]] void logByHand(Log::LoggerImplIfc& sink, char const* format, ...)
{
    std::array<char, 512> text; // NOLINT(cppcoreguidelines-pro-type-member-init): filled by what follows
    va_list values;
    va_start(values, format);
    auto const length = static_cast<std::size_t>(std::vsnprintf(text.data(), text.size(), format, values));
    va_end(values);
    sink.write({std::chrono::system_clock::now(), Log::Severity::Info, "bench", {text.data(), length}});
}

void logEnabledByHand(benchmark::State& state)
{
    std::unique_ptr<Log::LoggerImplIfc> const sink = std::make_unique<TestSupport::NullSink>();
    benchmark::DoNotOptimize(sink.get());
    for (auto _ : state)
    {
        logByHand(*sink, "~step %d of %s", 5, "nine");
    }
}
BENCHMARK(logEnabledByHand);

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
