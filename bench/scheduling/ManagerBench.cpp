#include "scheduling/BareScheduler.h"
#include "scheduling/HeldManager.h"
#include "support/AllocationCount.h"
#include "support/OtherThreads.h"

#include <benchmark/benchmark.h>

#include <utils/PcmExecutor.h>

#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>

#include <chrono>
#include <future>
#include <list>
#include <memory>

using namespace Halden::Tavro;
using namespace std::chrono_literals;
using std::chrono::steady_clock;
using Strategy = Utils::PeriodicCallerManager::ExecutionStrategy;

namespace
{

std::list<boost::asio::steady_timer> makeTimers(boost::asio::io_context& context, std::size_t count)
{
    std::list<boost::asio::steady_timer> timers;
    for (std::size_t made = 0; made < count; ++made)
    {
        timers.emplace_back(context);
    }
    return timers;
}

void arm(boost::asio::steady_timer& timer, steady_clock::time_point due)
{
    timer.expires_at(due);
    timer.async_wait([](boost::system::error_code const&) {});
}

/// Without the wake-up of a sleeping scheduler: it is held meanwhile.
void addRemove(benchmark::State& state)
{
    Bench::HeldManager const manager(static_cast<std::size_t>(state.range(0)));
    for (auto _ : state)
    {
        benchmark::DoNotOptimize(manager->add([] {}, 1h));
    }
}
BENCHMARK(addRemove)->RangeMultiplier(10)->Range(1, 1000);

void addRemoveTimer(benchmark::State& state)
{
    boost::asio::io_context context;
    auto timers = makeTimers(context, static_cast<std::size_t>(state.range(0)));
    steady_clock::time_point const due = steady_clock::now() + 1h;
    for (auto& timer : timers)
    {
        arm(timer, due);
    }
    for (auto _ : state)
    {
        {
            boost::asio::steady_timer timer(context);
            arm(timer, due);
        }
        context.poll();
    }
}
BENCHMARK(addRemoveTimer)->RangeMultiplier(10)->Range(1, 1000);

/// What the scheduler thread does between two sleeps, with every function due.
void pass(benchmark::State& state, Strategy strategy)
{
    Bench::HeldManager const manager(static_cast<std::size_t>(state.range(0)));
    auto const executor = Utils::make_executor(strategy);
    std::size_t const before = Bench::allocations();
    for (auto _ : state)
    {
        auto const batch = manager->dueUntil(steady_clock::now() + 2h);
        executor->execute(batch);
        benchmark::DoNotOptimize(manager->nextPcmDueTime());
    }
    state.counters["allocations"] =
        benchmark::Counter(static_cast<double>(Bench::allocations() - before), benchmark::Counter::kAvgIterations);
}
BENCHMARK_CAPTURE(pass, Sequential, Strategy::Sequential)->RangeMultiplier(10)->Range(1, 1000)->UseRealTime();
BENCHMARK_CAPTURE(pass, ThreadPool, Strategy::ThreadPool)->RangeMultiplier(10)->Range(1, 1000)->UseRealTime();

/// The same by hand.
void passByHand(benchmark::State& state)
{
    Bench::BareScheduler scheduler;
    for (auto left = state.range(0); left > 0; --left)
    {
        scheduler.add([] {}, 1h);
    }
    for (auto _ : state)
    {
        benchmark::DoNotOptimize(scheduler.pass(steady_clock::now() + 2h));
    }
}
BENCHMARK(passByHand)->RangeMultiplier(10)->Range(1, 1000)->UseRealTime();

constexpr int overduePasses = 10'000;

/// The time that so many passes take whose next due time has passed when they end.
void overduePass(benchmark::State& state)
{
    for (auto _ : state)
    {
        auto const manager = Bench::makeSleepingManager();
        int calls = 0; // on the scheduler thread alone
        steady_clock::time_point begin;
        std::promise<std::unique_ptr<Utils::PeriodicCallerManagerTokenIfc>> registered;
        std::promise<steady_clock::duration> ended;
        registered.set_value(manager->add(
            [&]
            {
                if (calls == 0)
                {
                    begin = steady_clock::now();
                }
                if (++calls > overduePasses)
                {
                    steady_clock::duration const duration = steady_clock::now() - begin;
                    registered.get_future().get().reset(); // here, where nothing else reads the manager's list
                    ended.set_value(duration);
                }
            },
            -1ms));
        state.SetIterationTime(std::chrono::duration<double>(ended.get_future().get()).count() / overduePasses);
        TestSupport::OtherThreads::awaitRest();
    }
}
BENCHMARK(overduePass)->Iterations(20)->UseManualTime();

void overduePassByHand(benchmark::State& state)
{
    for (auto _ : state)
    {
        Bench::BareScheduler scheduler;
        scheduler.add([] {}, -1ms);
        auto const begin = steady_clock::now();
        for (int pass = 0; pass < overduePasses; ++pass)
        {
            scheduler.waitUntil(scheduler.pass(steady_clock::now()));
        }
        state.SetIterationTime(std::chrono::duration<double>(steady_clock::now() - begin).count() / overduePasses);
    }
}
BENCHMARK(overduePassByHand)->Iterations(20)->UseManualTime();

/// A timer that is armed again for its next period when it expires, as a periodic function's must be.
class PeriodicTimer
{
public:
    PeriodicTimer(boost::asio::io_context& context, steady_clock::time_point due)
        : timer(context)
        , due(due)
    {
        wait();
    }

private:
    void wait()
    {
        timer.expires_at(due);
        timer.async_wait(
            [this](boost::system::error_code const& error)
            {
                if (!error)
                {
                    due += 1ns; // so always past, and behind all others
                    wait();
                }
            });
    }

    boost::asio::steady_timer timer;
    steady_clock::time_point due;
};

/// One expiry each of as many timers.
void timerExpiry(benchmark::State& state)
{
    boost::asio::io_context context;
    std::list<PeriodicTimer> timers;
    for (auto made = state.range(0); made > 0; --made)
    {
        timers.emplace_back(context, steady_clock::now() - 1h);
    }
    for (auto _ : state)
    {
        for (auto left = state.range(0); left > 0; --left)
        {
            context.run_one();
        }
    }
}
BENCHMARK(timerExpiry)->RangeMultiplier(10)->Range(1, 1000);

}
