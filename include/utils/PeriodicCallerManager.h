#pragma once

#include <log/Logger.h>
#include <utils/Export.h>
#include <utils/PcmItem.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
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

/// The registration of one function, see PeriodicCallerManagerIfc::add().
///
/// Destroying it ends the registration and waits for a call in progress on another thread: afterwards the function is
/// not running there and is never called again. It may be destroyed from inside its own function, which then runs on to
/// its end.
class HALDEN_CPPUTILS_EXPORT PeriodicCallerManagerTokenIfc
{
public:
    virtual ~PeriodicCallerManagerTokenIfc();
};

/// Calls registered functions periodically.
class HALDEN_CPPUTILS_EXPORT PeriodicCallerManagerIfc
{
public:
    virtual ~PeriodicCallerManagerIfc();

    /// Registers a function until the token is destroyed. Its first call follows at once or, where the machine has been
    /// up for less than one period, as soon as it has been up for that long.
    ///
    /// @param period between two starts, truncated to whole milliseconds. Where `unsigned long` has 32 bits the log
    ///               shows no more of them: a period of 50 days or more looks shorter there.
    /// @return never null; dropped at once, it ends the registration with it
    // Two attributes, as gcc heeds the first at no virtual call.
    [[nodiscard, gnu::warn_unused_result]] virtual std::unique_ptr<PeriodicCallerManagerTokenIfc>
    add(std::function<void()> function, std::chrono::duration<double> period) = 0;
};

/// The manager as its tokens see it.
class HALDEN_CPPUTILS_EXPORT PcmTokenToManagerIfc
{
public:
    virtual void remove(std::shared_ptr<PcmItemIfc> const& item) = 0;

protected:
    ~PcmTokenToManagerIfc() = default; // never deleted through this interface
};

/// A token that holds its manager: a manager lives at least as long as any of its tokens.
class HALDEN_CPPUTILS_EXPORT PcmToken : public PeriodicCallerManagerTokenIfc
{
public:
    PcmToken(std::shared_ptr<PcmItemIfc> item, std::shared_ptr<PcmTokenToManagerIfc> manager);

    PcmToken(PcmToken const&) = delete;
    PcmToken& operator=(PcmToken const&) = delete;

    /// Forbids the item, removes it from the manager, waits for its execution if any, then lets go of both.
    ~PcmToken() override;

private:
    std::shared_ptr<PcmItemIfc> const item;
    std::shared_ptr<PcmTokenToManagerIfc> const manager;
};

/// One scheduler thread that sleeps until the earliest function is due and then runs all that are due as one batch.
///
///     auto const manager = std::make_shared<PeriodicCallerManager>(
///         PeriodicCallerManager::ExecutionStrategy::Sequential, "sensors");
///     auto const token = manager->add([] { readSensors(); }, 250ms);
///
/// Functions run on the scheduler thread (Sequential), or on it and a pool of six threads per hardware thread
/// (ThreadPool), under no lock but their item's own. The next pass starts when the whole batch has finished. What a
/// function throws is logged, see PcmItem. A failure of the scheduler itself is logged at severity Critical and ends
/// the process.
///
/// Threads: everything may be called from any thread, also from the functions. Nothing here waits for a function but
/// the destruction of its token, and that of the manager for its pass.
///
/// Limits:
/// - Two functions of a pool that destroy each other's tokens wait for each other for ever.
/// - A function that is removed during a pass is kept, with all that it holds, until the scheduler wakes next.
/// - Where one of its functions drops the last reference to a manager (hardened build), the scheduler thread ends by
///   itself after the pass: nobody waits for it.
///
/// Hazards of the exact build:
/// - After a batch the scheduler thread scans the list of functions without a lock. An add or a token's destruction at
///   that moment can make it read a list node that is being changed or was just freed. Adding and removing without
///   pause beside the running scheduler crashes within seconds. A service that registered at its start and removed only
///   at its end died once in some 1,600 runs on a loaded machine, by SIGSEGV in this scan while it destroyed its
///   tokens. So destroy a token inside its own function where you can, which never runs beside the scan.
/// - Wake-ups are asked for without the scheduler's wait mutex. A request that falls between the scheduler's last look
///   and its sleep is noticed when the sleep ends by itself, at the next due time. With no function registered that is
///   never: the destructor, or the first call of a new function, then hangs. It takes a request within a microsecond
///   after a pass; keep a function with a period of seconds registered where that matters.
/// - The last token, and with it the manager, cannot be destroyed inside its own function, for a thread cannot join
///   itself: this ends the process (Sequential) or never returns (ThreadPool, unless the scheduler thread has taken up
///   the function: then as Sequential). Keep a manager's pointer elsewhere.
/// - A function whose add() has thrown std::bad_weak_ptr stays registered for good.
class HALDEN_CPPUTILS_EXPORT PeriodicCallerManager : public PeriodicCallerManagerIfc,
                                                     public PcmTokenToManagerIfc,
                                                     public std::enable_shared_from_this<PeriodicCallerManager>,
                                                     protected virtual Log::Logger
{
public:
    enum class ExecutionStrategy
    {
        ThreadPool = 0,
        Sequential = 1
    };

    /// Starts the scheduler thread. Must be made by std::make_shared, or add() fails.
    ///
    /// @param name becomes part of the logger's name
    /// @throws std::runtime_error when the strategy is unknown, see make_executor()
    /// @throws std::system_error  when the scheduler thread cannot be made; for those of a pool see make_executor()
    PeriodicCallerManager(ExecutionStrategy strategy, std::string const& name);

    PeriodicCallerManager(PeriodicCallerManager const&) = delete;
    PeriodicCallerManager& operator=(PeriodicCallerManager const&) = delete;

    /// Waits for the scheduler thread, and so for a pass in progress. Forbids no function: every token holds the
    /// manager, so there are none left.
    ~PeriodicCallerManager() override;

    /// A negative period makes the function due on every pass, without any sleep between the passes. One beyond 292
    /// years, what 64 bits hold in nanoseconds, counts as that long.
    ///
    /// @throws std::invalid_argument "Period must be greater than zero milliseconds" when it truncates to 0 ms
    /// @throws std::bad_weak_ptr     when no shared pointer owns the manager
    [[nodiscard, gnu::warn_unused_result]] std::unique_ptr<PeriodicCallerManagerTokenIfc>
    add(std::function<void()> function, std::chrono::duration<double> period) override;

    /// For tokens. An unknown item is logged and otherwise ignored.
    void remove(std::shared_ptr<PcmItemIfc> const& item) override;

protected:
    /// Takes no lock.
    ///
    /// @return the earliest due time, or the greatest time point when there is no item
    std::chrono::steady_clock::time_point nextPcmDueTime() const;

    /// @return the items due at `until` or before, the most overdue first
    std::vector<std::shared_ptr<PcmItemIfc>> dueUntil(std::chrono::steady_clock::time_point const& until);

    /// Stores the earliest due time, and asks the scheduler to wake when it moved earlier. Runs under itemsMutex.
    void updateSchedulerNextDueTime();

private:
    void schedulerThread();
    void runPass();
    void waitUntil(std::chrono::steady_clock::time_point const& next);
    void requestWakeUp();

    std::mutex itemsMutex; // guards items, but in the exact build not from the scheduler's scan; before waitMutex
    std::mutex waitMutex;  // the scheduler thread's around its wait and, in the hardened build, of who makes a request
    std::condition_variable schedulerWakeup;
    std::atomic<bool> wakeUpRequested{false};
    std::atomic<bool> stopRequested{false};
    std::list<std::shared_ptr<PcmItemIfc>> items; // in order of registration
    // As of the last add or remove; never written by the scheduler thread.
    std::atomic<std::chrono::steady_clock::time_point> schedulerNextDueTime{
        std::chrono::steady_clock::time_point::max()};
    std::unique_ptr<PeriodicCallerManagerExecutorIfc> executor; // may outlive the manager, see RunningScheduler
    std::thread thread;
};

}
