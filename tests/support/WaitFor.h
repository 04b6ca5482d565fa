#pragma once

#include <chrono>
#include <future>
#include <thread>

namespace Halden::Tavro::TestSupport
{

/// @return whether the condition has come true within the limit
template <typename Condition>
bool waitFor(Condition const& condition, std::chrono::milliseconds limit = std::chrono::seconds(10))
{
    auto const deadline = std::chrono::steady_clock::now() + limit;
    while (!condition())
    {
        if (std::chrono::steady_clock::now() > deadline)
        {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

/// @return whether the result has come within the limit. The future's own wait_for() asks the system to wait until a
/// time
///         of the program's steady clock, and so never ends where a double has put that clock ahead.
template <typename Future>
bool becomesReady(Future const& future, std::chrono::milliseconds limit = std::chrono::seconds(10))
{
    return waitFor([&future] { return future.wait_for(std::chrono::seconds(0)) == std::future_status::ready; }, limit);
}

}
