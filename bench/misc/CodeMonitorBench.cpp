#include <utils/CodeMonitor.h>

#include <benchmark/benchmark.h>

#include <atomic>

using namespace Halden::Tavro::Utils;

namespace
{

// What both sides do with the flag: return whether it is set.

void bareAtomicLoad(benchmark::State& state)
{
    std::atomic<bool> flag{false};
    benchmark::DoNotOptimize(&flag);
    for (auto _ : state)
    {
        benchmark::DoNotOptimize(flag.load());
    }
}
BENCHMARK(bareAtomicLoad);

void crossOpenBarrier(benchmark::State& state)
{
    CodeMonitor monitor("bench");
    benchmark::DoNotOptimize(&monitor);
    for (auto _ : state)
    {
        benchmark::DoNotOptimize(monitor.crossBarrier());
    }
}
BENCHMARK(crossOpenBarrier);

}
