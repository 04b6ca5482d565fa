#pragma once

#include <log/Logger.h>
#include <utils/PcmItem.h>
#include <utils/PeriodicCallerManager.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace Halden::Tavro::Utils
{

class PeriodicCallerManagerExecutorIfc;

}

namespace Halden::Tavro::Utils::Testing
{

/// A manager with a time of its own, which stands still until the test moves it.
///
///     auto const manager = std::make_shared<ManualTimeManager>();
///     SensorService service(manager); // adds its functions as ever
///     manager->advance(1min);         // calls them as in a minute on a device, and returns
///
/// All else is as with a sequential PeriodicCallerManager: what is due runs as one batch, the most overdue first; due
/// times count from the last start; what a function throws is logged, the first time at Error; a token forbids, removes
/// and waits, and may be destroyed in its own function. The log has the same lines, except those of the scheduler
/// thread, of which there is none, and of its wake-ups.
///
/// A function takes no time, unless it calls spend(): then all that follows is late, as on a device.
///
/// Threads: functions run on the thread that calls advance(), which only one thread at a time may do, and never a
/// function. Everything else may be called from any thread. A new function is first called by the next advance(), even
/// one of zero. One that is added or falls due while another thread advances may have to wait for the next.
class ManualTimeManager : public PeriodicCallerManagerIfc,
                          public PcmTokenToManagerIfc,
                          public std::enable_shared_from_this<ManualTimeManager>,
                          protected virtual Log::Logger
{
public:
    /// Must be made by std::make_shared, or add() fails.
    ///
    /// @param name   becomes part of the logger's name, which is that of a PeriodicCallerManager
    /// @param uptime how long the machine has been up, as new functions wait until that is one period
    explicit ManualTimeManager(std::string const& name = "",
                               std::chrono::milliseconds uptime = std::chrono::hours(24000));

    ManualTimeManager(ManualTimeManager const&) = delete;
    ManualTimeManager& operator=(ManualTimeManager const&) = delete;

    ~ManualTimeManager() override;

    /// As PeriodicCallerManager::add().
    [[nodiscard, gnu::warn_unused_result]] std::unique_ptr<PeriodicCallerManagerTokenIfc>
    add(std::function<void()> function, std::chrono::duration<double> period) override;

    /// For tokens, as PeriodicCallerManager::remove().
    void remove(std::shared_ptr<PcmItemIfc> const& item) override;

    /// Lets that much time pass, and calls on the way what falls due up to and including its end.
    ///
    /// A batch that spends time beyond the end is finished, and takes the time with it. What else has fallen due by
    /// then waits for the next advance.
    ///
    /// @throws std::invalid_argument when the duration is negative, as time does not go back
    /// @throws std::logic_error      when called from a function, or while another thread advances; also when a
    ///                               function with a negative period, which is always due, spends no time and so holds
    ///                               up the rest
    void advance(std::chrono::nanoseconds duration);

    /// Lets the running function take that much time.
    ///
    /// @throws std::invalid_argument when the duration is negative
    /// @throws std::logic_error      when called from anywhere but a function of this manager
    void spend(std::chrono::nanoseconds duration);

    /// The manager's time, in place of that of the steady clock. It starts at the uptime.
    std::chrono::steady_clock::time_point now() const;

private:
    class Item;
    class Advance;

    std::chrono::steady_clock::time_point nextDueTime() const;
    std::vector<std::shared_ptr<PcmItemIfc>> due() const;
    void runBatch();
    void requireWayOn() const;

    mutable std::mutex itemsMutex;                // never held while a function runs
    std::list<std::shared_ptr<PcmItemIfc>> items; // in order of registration; guarded by itemsMutex
    std::atomic<std::chrono::steady_clock::time_point> present;
    std::atomic<std::thread::id> advancing{}; // the thread inside advance(), if any
    std::unique_ptr<PeriodicCallerManagerExecutorIfc> const executor;
};

}
