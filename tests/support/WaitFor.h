#pragma once

#include "support/ClockTime.h"

#include <time.h>

#include <chrono>
#include <future>
#include <thread>

namespace Halden::Tavro::TestSupport
{

/// @return whether the condition has come true within the limit, by the system's clock
template <typename Condition>
bool waitFor(Condition const& condition, std::chrono::milliseconds limit = std::chrono::seconds(10))
{
    auto const deadline = timeOf(CLOCK_MONOTONIC) + limit;
    while (!condition())
    {
        if (timeOf(CLOCK_MONOTONIC) > deadline)
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
