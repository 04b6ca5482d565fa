#pragma once

#include <utils/CodeMonitor.h>

#include <chrono>

namespace Halden::Tavro::Utils::Testing
{

/// Holds the thread that comes to a code monitor, and lets it go at the latest at its own end, also when the test ends
/// early: by a failed assertion or an exception.
///
///     BarrierGuard held(service.monitor);
///     service.startMeasurement();
///     ASSERT_TRUE(held.waitTrapped());
///     EXPECT_EQ(service.monitor.getArgument("sum").value.uint64, 3);
///
/// Threads: that of the monitor's controller. Between a release and the next guard of the monitor, the released
/// crossBarrier() must have returned, see CodeMonitor.
class BarrierGuard
{
public:
    /// Closes the barrier.
    ///
    /// @throws std::runtime_error "Barrier already closed"
    explicit BarrierGuard(CodeMonitor& monitor);

    BarrierGuard(BarrierGuard const&) = delete;
    BarrierGuard& operator=(BarrierGuard const&) = delete;

    /// Lets the thread go, unless the barrier was opened before.
    ~BarrierGuard();

    /// @return false when no thread has come within the limit
    bool waitTrapped(std::chrono::milliseconds limit = std::chrono::seconds(10));

    /// Opens the barrier now.
    ///
    /// @return whether a thread was held
    /// @throws std::runtime_error "Barrier is not closed" when it was opened before
    bool release();

private:
    CodeMonitor& monitor;
};

}
