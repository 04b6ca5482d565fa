#pragma once

#include <chrono>
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

}
