#include <benchmark/benchmark.h>

#include <utils/PcmExecutor.h>

#include <boost/asio/post.hpp>
#include <boost/asio/thread_pool.hpp>

#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

using namespace Halden::Tavro;
using namespace std::chrono_literals;
using Strategy = Utils::PeriodicCallerManager::ExecutionStrategy;

namespace
{

void batch(benchmark::State& state, Strategy strategy)
{
    std::vector<std::shared_ptr<Utils::PcmItemIfc>> items;
    for (auto left = state.range(0); left > 0; --left)
    {
        items.push_back(std::make_shared<Utils::PcmItem>([] {}, 1h));
    }
    auto const executor = Utils::make_executor(strategy);
    for (auto _ : state)
    {
        executor->execute(items);
    }
}
BENCHMARK_CAPTURE(batch, Sequential, Strategy::Sequential)->RangeMultiplier(10)->Range(1, 1000);
BENCHMARK_CAPTURE(batch, ThreadPool, Strategy::ThreadPool)->RangeMultiplier(10)->Range(1, 1000)->UseRealTime();

/// What no execution of an item can do without.
void executionParts(benchmark::State& state)
{
    std::recursive_mutex mutex;
    std::function<void()> function = [] {};
    benchmark::DoNotOptimize(&function);
    for (auto _ : state)
    {
        std::lock_guard const lock(mutex);
        benchmark::DoNotOptimize(std::chrono::steady_clock::now());
        benchmark::ClobberMemory();
        function();
    }
}
BENCHMARK(executionParts);

void barePool(benchmark::State& state)
{
    boost::asio::thread_pool pool(std::thread::hardware_concurrency() * 6);
    for (auto _ : state)
    {
        std::atomic<std::int64_t> left{state.range(0)};
        std::promise<void> done;
        for (auto task = state.range(0); task > 0; --task)
        {
            boost::asio::post(pool,
                              [&left, &done]
                              {
                                  if (--left == 0)
                                  {
                                      done.set_value();
                                  }
                              });
        }
        done.get_future().wait();
    }
}
BENCHMARK(barePool)->RangeMultiplier(10)->Range(1, 1000)->UseRealTime();

void hardwareConcurrency(benchmark::State& state)
{
    for (auto _ : state)
    {
        benchmark::DoNotOptimize(std::thread::hardware_concurrency());
    }
}
BENCHMARK(hardwareConcurrency);

}
