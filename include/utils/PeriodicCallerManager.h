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

/// The registration of one function, see PeriodicCallerManagerIfc::add(). Keep it for as long as the function is to be
/// called.
///
/// Destroying it ends the registration and waits for a call in progress on another thread: afterwards the function is
/// not running there and is never called again. It may be destroyed inside its own function, which then runs on to its
/// end.
class HALDEN_CPPUTILS_EXPORT PeriodicCallerManagerTokenIfc
{
public:
    virtual ~PeriodicCallerManagerTokenIfc();
};

/// The manager as a service sees it: at work a PeriodicCallerManager, in its tests a Testing::ManualTimeManager.
class HALDEN_CPPUTILS_EXPORT PeriodicCallerManagerIfc
{
public:
    virtual ~PeriodicCallerManagerIfc();

    /// Registers a function until the token is destroyed. A dropped result ends the registration at once.
    ///
    /// @param function called on a thread of the manager
    /// @param period   from start to start, truncated to whole milliseconds. On a 32-bit device the log line shows only
    ///                 the low 32 bits of their number, so 50 days or more look shorter there.
    /// @return never null
    // Two attributes, as gcc heeds the first at no virtual call.
    [[nodiscard, gnu::warn_unused_result]] virtual std::unique_ptr<PeriodicCallerManagerTokenIfc>
    add(std::function<void()> function, std::chrono::duration<double> period) = 0;
};

/// The manager as its tokens see it.
class HALDEN_CPPUTILS_EXPORT PcmTokenToManagerIfc
{
public:
    /// Takes an item out of the schedule.
    virtual void remove(std::shared_ptr<PcmItemIfc> const& item) = 0;

protected:
    ~PcmTokenToManagerIfc() = default; // never deleted through this interface
};

/// A token that holds its manager: a manager lives at least as long as any of its tokens.
class HALDEN_CPPUTILS_EXPORT PcmToken : public PeriodicCallerManagerTokenIfc
{
public:
    /// @param item    registered with the manager
    /// @param manager is told when the token ends
    PcmToken(std::shared_ptr<PcmItemIfc> item, std::shared_ptr<PcmTokenToManagerIfc> manager);

    PcmToken(PcmToken const&) = delete;
    PcmToken& operator=(PcmToken const&) = delete;

    /// Forbids the item, removes it from the manager, waits for its execution if any, then lets go of both.
    ~PcmToken() override;

private:
    std::shared_ptr<PcmItemIfc> const item;
    std::shared_ptr<PcmTokenToManagerIfc> const manager;
};

/// Calls functions periodically. One scheduler thread sleeps until the earliest function is due, then runs all that are
/// due as one batch.
///
///     auto const manager = std::make_shared<PeriodicCallerManager>(
///         PeriodicCallerManager::ExecutionStrategy::Sequential, "sensors");
///     auto const token = manager->add([] { readSensors(); }, 250ms);
///
/// Keep the token: its end ends the registration. A manager lives at least as long as its last token. In other names,
/// "Pcm" stands for "periodic caller manager".
///
/// What to expect:
/// - **First call:** At once, or when the machine has been up for one period.
/// - **Overlap:** A function never overlaps itself. With a pool, the functions of one batch overlap each other.
/// - **A slow function** delays all others, with a pool too: the next batch starts when the whole batch has finished.
///   Beside one that takes 800 ms once a second, a function with a period of 50 ms runs 13 times in 3 s.
/// - **Drift:** A due time counts from the last start. A late start moves all later ones, and missed calls are not made
///   up.
/// - **Lateness:** A function starts at best some 50 us late, the kernel's timer slack. To change that, call prctl(2)
///   with PR_SET_TIMERSLACK on the thread that makes the manager, before it does.
/// - **Clock:** Setting the system's clock changes nothing. During a suspend time stands still: what was left of a
///   period follows after the resume.
/// - **Exceptions** of a function are logged, the first at Error, all later ones at Trace. It is called again when it
///   is next due.
/// - **Locks:** A function runs under no lock but its item's own. Destroying a token waits for a call in progress, so
///   hold no lock meanwhile that the function takes.
///
/// Threads: everything may be called from any thread, and from the functions. Only two operations wait for functions:
/// destroying a token waits for its own, and destroying the manager for the pass in progress. A failure of the
/// scheduler itself is logged at Critical and ends the process.
///
/// Limits:
/// - Two functions of a pool that destroy each other's tokens wait for each other for ever.
/// - A function that is removed during a pass stays in memory, with all that it holds, until the scheduler next wakes.
/// - A forked child has no scheduler thread: nothing is called there, and the destructor hangs or crashes.
/// - In the hardened build, one of the manager's functions may drop the last reference to it. The scheduler thread then
///   ends by itself after the pass, and nobody waits for it.
///
/// Hazards of the exact build:
/// - After a batch the scheduler thread scans the list of functions without a lock. An add, or the end of a token, at
///   that moment can make it read a list node that is changing or has just been freed. Adding and removing without
///   pause crashes within seconds. A service that added at its start and removed only at its end crashed once in some
///   1,600 runs on a loaded machine. A token that is destroyed inside its own function is safe, as that never runs
///   during the scan.
/// - A request to wake or to stop is lost when it comes between the scheduler's last look and its sleep, within a
///   microsecond after a pass. The scheduler then sleeps on until the next due time; with no function registered, for
///   ever. So the first call of a new function may never come: keep another one with a period of seconds registered.
///   And the destructor may never return: where that matters, let the manager live as long as the process.
/// - The last token, and with it the manager, must not be destroyed inside its own function, as a thread cannot join
///   itself: that ends the process, or with a pool never returns, unless the scheduler thread happens to run the
///   function. Keep another pointer to the manager.
/// - A function whose add() has thrown std::bad_weak_ptr, or std::bad_alloc at its very end, stays registered for good.
class HALDEN_CPPUTILS_EXPORT PeriodicCallerManager : public PeriodicCallerManagerIfc,
                                                     public PcmTokenToManagerIfc,
                                                     public std::enable_shared_from_this<PeriodicCallerManager>,
                                                     protected virtual Log::Logger
{
public:
    /// How the functions of one batch run. With either, the next batch waits for the slowest function of this one.
    enum class ExecutionStrategy
    {
        ThreadPool = 0, ///< side by side, on six threads per hardware thread and the scheduler thread
        Sequential = 1  ///< one after another, on the scheduler thread
    };

    /// Starts the scheduler thread. Must be made by std::make_shared, or add() fails.
    ///
    /// @param strategy how the functions of one batch run
    /// @param name     becomes part of the logger's name
    /// @throws std::runtime_error when the strategy is unknown, see make_executor()
    /// @throws std::system_error  when the scheduler thread cannot be made; for those of a pool see make_executor()
    PeriodicCallerManager(ExecutionStrategy strategy, std::string const& name);

    PeriodicCallerManager(PeriodicCallerManager const&) = delete;
    PeriodicCallerManager& operator=(PeriodicCallerManager const&) = delete;

    /// Waits for the scheduler thread, and so for a pass in progress. Forbids no function: every token holds the
    /// manager, so there are none left.
    ~PeriodicCallerManager() override;

    /// Registers a function, see PeriodicCallerManagerIfc::add().
    ///
    /// | Period, in whole milliseconds | What comes of it                                                   |
    /// |-------------------------------|--------------------------------------------------------------------|
    /// | more than zero                | calls from start to start; beyond 292 years it counts as that long |
    /// | zero                          | refused                                                            |
    /// | less than zero                | accepted, although the exception's text says "greater than zero"; no pause |
    ///
    /// @throws std::invalid_argument "Period must be greater than zero milliseconds" for zero
    /// @throws std::bad_weak_ptr     when no shared pointer owns the manager
    [[nodiscard, gnu::warn_unused_result]] std::unique_ptr<PeriodicCallerManagerTokenIfc>
    add(std::function<void()> function, std::chrono::duration<double> period) override;

    /// For tokens. An unknown item is logged and otherwise ignored.
    void remove(std::shared_ptr<PcmItemIfc> const& item) override;

protected:
    /// The earliest due time, or the greatest time point when there is no item. Takes no lock.
    std::chrono::steady_clock::time_point nextPcmDueTime() const;

    /// The items that are due at `until` or before, the most overdue first.
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
