#include "metrics/CapturingManager.h"
#include "support/AllocationCount.h"

#include <benchmark/benchmark.h>

#include <utils/metrics/MeasuredManager.h>

#include <prometheus/registry.h>

#include <chrono>
#include <functional>
#include <memory>
#include <utility>

using namespace Halden::Tavro;
using namespace std::chrono_literals;

namespace
{

void nothing()
{
    benchmark::ClobberMemory();
}

void run(benchmark::State& state, std::function<void()> const& function)
{
    std::size_t const before = Bench::allocations();
    for (auto _ : state)
    {
        function();
    }
    state.counters["allocations"] =
        benchmark::Counter(static_cast<double>(Bench::allocations() - before), benchmark::Counter::kAvgIterations);
}

void plainRun(benchmark::State& state)
{
    run(state, nothing);
}
BENCHMARK(plainRun);

void measuredRun(benchmark::State& state)
{
    auto const capturing = std::make_shared<TestSupport::CapturingManager>();
    Utils::Metrics::MeasuredManager measured(capturing, std::make_shared<prometheus::Registry>());
    auto const token = measured.add("function", nothing, 1ms);
    run(state, capturing->function);
}
BENCHMARK(measuredRun);

}
