#pragma once

#include <utils/CodeMonitor.h>

#include <chrono>

namespace Halden::Tavro::Utils::Testing
{

/// Holds the thread that comes to a code monitor, and lets it go when the guard ends at the latest, also when a failed
/// assertion or an exception ends the test early.
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

    /// Waits for a thread to come.
    ///
    /// @return false when none has come within the limit
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
