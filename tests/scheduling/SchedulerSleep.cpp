#include "scheduling/SchedulerSleep.h"

#include "support/CallDouble.h"
#include "support/ClockTime.h"
#include "support/WaitFor.h"

#include <pthread.h>
#include <time.h>

#include <atomic>
#include <mutex>
#include <stdexcept>
#include <utility>

using Halden::Tavro::TestSupport::systemFunction;
using Halden::Tavro::TestSupport::timeOf;
using Halden::Tavro::TestSupport::toDuration;
using Halden::Tavro::TestSupport::toTimespec;

namespace
{

/// One sleep that nobody has disturbed so far.
struct Sleep
{
    pthread_cond_t* condition{nullptr}; // null when there is none
    pthread_mutex_t* released{nullptr};
    timespec until{};
};

std::mutex mutex;
Sleep current;              // guarded by mutex
std::function<void()> hook; // guarded by mutex
std::atomic<std::size_t> sleeps{0};
std::atomic<std::size_t> broadcasts{0};

/// From the time that the program's steady clock reads, which may be a double.
std::chrono::nanoseconds timeLeft(timespec const& until)
{
    return toDuration(until) - std::chrono::steady_clock::now().time_since_epoch();
}

/// The same time on the system's clock.
timespec onSystemsClock(timespec const& until)
{
    return toTimespec(timeOf(CLOCK_MONOTONIC) + timeLeft(until));
}

pthread_mutex_t* sleeper(std::chrono::milliseconds atLeast)
{
    std::lock_guard const lock(mutex);
    bool const found = current.condition != nullptr && timeLeft(current.until) >= atLeast;
    return found ? current.released : nullptr;
}

}

extern "C" int pthread_cond_clockwait(pthread_cond_t* condition, pthread_mutex_t* released, clockid_t clock,
                                      timespec const* until)
{
    static auto* const system = systemFunction<decltype(&pthread_cond_clockwait)>("pthread_cond_clockwait");
    std::function<void()> called;
    {
        std::lock_guard const lock(mutex);
        called = std::exchange(hook, nullptr);
    }
    if (called)
    {
        called();
    }
    {
        std::lock_guard const lock(mutex);
        current = {condition, released, *until};
    }
    ++sleeps;
    timespec const systemsUntil = onSystemsClock(*until);
    int const result = system(condition, released, clock, &systemsUntil);
    std::lock_guard const lock(mutex);
    current = {};
    return result;
}

extern "C" int pthread_cond_broadcast(pthread_cond_t* condition) noexcept
{
    static auto* const system = systemFunction<decltype(&pthread_cond_broadcast)>("pthread_cond_broadcast");
    {
        std::lock_guard const lock(mutex);
        if (current.condition == condition)
        {
            current = {};
        }
    }
    int const result = system(condition);
    ++broadcasts;
    return result;
}

namespace Halden::Tavro::TestSupport::SchedulerSleep
{

void await(std::chrono::milliseconds atLeast)
{
    pthread_mutex_t* found = nullptr;
    if (!waitFor([&] { return (found = sleeper(atLeast)) != nullptr; }))
    {
        throw std::runtime_error("no scheduler sleeps");
    }
    // It is free as soon as the thread is among those that a notification wakes.
    pthread_mutex_lock(found);
    pthread_mutex_unlock(found);
}

std::size_t count()
{
    return sleeps;
}

std::size_t requests()
{
    return broadcasts;
}

void beforeNext(std::function<void()> function)
{
    std::lock_guard const lock(mutex);
    hook = std::move(function);
}

}
