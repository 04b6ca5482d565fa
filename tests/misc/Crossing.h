#pragma once

#include <utils/CodeMonitor.h>

#include <chrono>
#include <future>
#include <stdexcept>

namespace Halden::Tavro::TestSupport
{

/// A thread that crosses the barrier once.
class Crossing
{
public:
    explicit Crossing(Utils::CodeMonitor& monitor)
        : result(std::async(std::launch::async, [&monitor] { return monitor.crossBarrier(); }))
    {
    }

    bool isOver() { return result.wait_for(std::chrono::seconds(0)) == std::future_status::ready; }

    /// @return what crossBarrier() returned; throws when it does not return
    bool wait()
    {
        if (result.wait_for(std::chrono::seconds(30)) != std::future_status::ready)
        {
            throw std::runtime_error("still held");
        }
        return result.get();
    }

private:
    std::future<bool> result;
};

}
