#pragma once

#include <time.h>

#include <chrono>
#include <future>
#include <thread>

namespace Halden::Tavro::TestSupport
{

/// That of the system, whatever a double makes of std::chrono::steady_clock.
inline std::chrono::nanoseconds monotonicTime()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec);
}

/// @return whether the condition has come true within the limit
template <typename Condition>
bool waitFor(Condition const& condition, std::chrono::milliseconds limit = std::chrono::seconds(10))
{
    auto const deadline = monotonicTime() + limit;
    while (!condition())
    {
        if (monotonicTime() > deadline)
        {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

/// @return whether the result has come within the limit. The future's own wait_for() asks the system to wait until some
/// time of the program's steady clock, and so never ends where a double has put that clock ahead.
template <typename Future>
bool becomesReady(Future const& future, std::chrono::milliseconds limit = std::chrono::seconds(10))
{
    return waitFor([&future] { return future.wait_for(std::chrono::seconds(0)) == std::future_status::ready; }, limit);
}

}
