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

/// Leaves the calls to the benchmark.
class CapturingManager : public Utils::PeriodicCallerManagerIfc
{
public:
    std::unique_ptr<Utils::PeriodicCallerManagerTokenIfc> add(std::function<void()> added,
                                                              std::chrono::duration<double> /*period*/) override
    {
        function = std::move(added);
        return std::make_unique<Utils::PeriodicCallerManagerTokenIfc>();
    }

    std::function<void()> function;
};

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
    auto const capturing = std::make_shared<CapturingManager>();
    Utils::Metrics::MeasuredManager measured(capturing, std::make_shared<prometheus::Registry>());
    auto const token = measured.add("function", nothing, 1ms);
    run(state, capturing->function);
}
BENCHMARK(measuredRun);

}
