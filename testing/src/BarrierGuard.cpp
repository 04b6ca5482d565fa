#include <utils/testing/BarrierGuard.h>

#include <stdexcept>

namespace Halden::Tavro::Utils::Testing
{

BarrierGuard::BarrierGuard(CodeMonitor& monitor)
    : monitor(monitor)
{
    monitor.closeBarrier();
}

BarrierGuard::~BarrierGuard()
{
    try
    {
        monitor.openBarrier();
    }
    catch (std::runtime_error const&)
    {
        // it is open already
    }
}

bool BarrierGuard::waitTrapped(std::chrono::milliseconds limit)
{
    // The monitor looks fifty times however long it waits, so it is asked for short waits.
    constexpr std::chrono::milliseconds aWhile{50};
    auto const deadline = std::chrono::steady_clock::now() + limit;
    while (!monitor.waitTrapped(aWhile))
    {
        if (std::chrono::steady_clock::now() >= deadline)
        {
            return monitor.trappedAtBarrier();
        }
    }
    return true;
}

bool BarrierGuard::release()
{
    return monitor.openBarrier();
}

}
