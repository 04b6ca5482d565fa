#include "scheduling/HeldManager.h"
#include "support/ClockTime.h"
#include "support/OtherThreads.h"

#include <benchmark/benchmark.h>

#include <time.h>

#include <algorithm>
#include <chrono>
#include <future>
#include <memory>
#include <thread>
#include <vector>

using namespace Halden::Tavro;
using namespace std::chrono_literals;
using std::chrono::steady_clock;

namespace
{

constexpr steady_clock::duration period = 1ms;
constexpr std::size_t runs = 3000;

using Starts = std::vector<steady_clock::time_point>;

/// How much later than one period after the start before it each run has started.
void reportLateness(benchmark::State& state, Starts const& starts)
{
    std::vector<double> lateness;
    for (std::size_t run = 1; run < starts.size(); ++run)
    {
        lateness.push_back(std::chrono::duration<double, std::nano>(starts[run] - starts[run - 1] - period).count());
    }
    std::sort(lateness.begin(), lateness.end());
    state.counters["median"] = lateness[lateness.size() / 2];
    state.counters["p99"] = lateness[lateness.size() * 99 / 100];
}

/// The starts of a function that is registered with the period.
Starts startsOfFunction()
{
    Starts starts;
    starts.reserve(runs);
    std::promise<void> registered;
    std::promise<void> done;
    std::unique_ptr<Utils::PeriodicCallerManagerTokenIfc> token;
    auto const function = [&]
    {
        starts.push_back(steady_clock::now());
        if (starts.size() == 1)
        {
            registered.get_future().wait();
        }
        if (starts.size() == runs)
        {
            token.reset(); // on the scheduler thread, so that nothing changes the list while it scans
            done.set_value();
        }
    };
    auto const manager = Bench::makeSleepingManager();
    token = manager->add(function, period);
    registered.set_value();
    done.get_future().wait();
    TestSupport::OtherThreads::awaitRest();
    return starts;
}

/// The starts of a bare loop by the same rule on a thread of its own.
Starts startsOfLoop()
{
    Starts starts;
    starts.reserve(runs);
    std::thread(
        [&starts]
        {
            starts.push_back(steady_clock::now());
            while (starts.size() < runs)
            {
                timespec const until = TestSupport::toTimespec((starts.back() + period).time_since_epoch());
                clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr);
                starts.push_back(steady_clock::now());
            }
        })
        .join();
    return starts;
}

void lateness(benchmark::State& state, Starts (*measure)())
{
    for (auto _ : state)
    {
        reportLateness(state, measure());
    }
}
BENCHMARK_CAPTURE(lateness, function, startsOfFunction)->Iterations(1)->Repetitions(5)->UseRealTime();
BENCHMARK_CAPTURE(lateness, clock_nanosleep, startsOfLoop)->Iterations(1)->Repetitions(5)->UseRealTime();

/// How often the scheduler wakes in two seconds in which nothing is due.
void idleWakeUps(benchmark::State& state)
{
    for (auto _ : state)
    {
        std::promise<void> ran;
        auto const manager = Bench::makeSleepingManager();
        auto const token = manager->add([&ran] { ran.set_value(); }, 10s);
        ran.get_future().wait();
        TestSupport::OtherThreads::awaitRest(); // the pass after registration is none of the idle time
        unsigned long const before = TestSupport::OtherThreads::sleeps();
        std::this_thread::sleep_for(2s);
        state.counters["wakeUps"] = static_cast<double>(TestSupport::OtherThreads::sleeps() - before);
    }
}
BENCHMARK(idleWakeUps)->Iterations(1)->Repetitions(3)->UseRealTime();

}
