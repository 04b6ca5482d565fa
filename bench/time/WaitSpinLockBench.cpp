#include <utils/WaitSpinLock.h>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <vector>

using namespace Halden::Tavro::Utils;

namespace
{

void readSteadyClock(benchmark::State& state)
{
    for (auto _ : state)
    {
        benchmark::DoNotOptimize(std::chrono::steady_clock::now());
    }
}
BENCHMARK(readSteadyClock);

/// The time of one wait; "overshoot_ns" is the median of what exceeds the duration, the reading around it included.
void waitSpinLock(benchmark::State& state)
{
    std::chrono::microseconds const duration(state.range(0));
    std::vector<double> overshoots;
    for (auto _ : state)
    {
        auto const start = std::chrono::steady_clock::now();
        benchmark::DoNotOptimize(WaitSpinLock(duration));
        auto const overshoot = std::chrono::steady_clock::now() - start - duration;
        overshoots.push_back(std::chrono::duration<double, std::nano>(overshoot).count());
    }
    auto const middle = overshoots.begin() + static_cast<std::ptrdiff_t>(overshoots.size() / 2);
    std::nth_element(overshoots.begin(), middle, overshoots.end());
    state.counters["overshoot_ns"] = *middle;
}
BENCHMARK(waitSpinLock)->Arg(0)->Arg(1)->Arg(10)->Arg(100);

}
