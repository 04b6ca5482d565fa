#pragma once

#include <log/Logger.h>
#include <utils/Export.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <mutex>

namespace Halden::Tavro::Utils
{

#pragma GCC diagnostic push
// kept: [item-interface-without-virtual-destructor] shared pointers know the concrete class, and callers know the slots
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"

/// One periodic function as the manager, its executors and its tokens see it.
///
/// Always held as a std::shared_ptr made by std::make_shared of the concrete class: the interface has no virtual
/// destructor, so nothing may delete an item through it.
class HALDEN_CPPUTILS_EXPORT PcmItemIfc // NOLINT(cppcoreguidelines-virtual-class-destructor): likewise
{
public:
    /// Runs the function once. Throws nothing.
    virtual void execute() = 0;

    /// Whether nextDueTime() is earlier than now plus `within`; not when it is exactly then.
    virtual bool isDueWithin(std::chrono::milliseconds within) const = 0;

    /// When the function is to start next.
    virtual std::chrono::steady_clock::time_point nextDueTime() const = 0;

    /// From one start to the next.
    virtual std::chrono::milliseconds period() const = 0;

    /// From now on execute() does not call the function. Does not wait for a call in progress, and is final.
    virtual void forbidFurtherExecutions() = 0;

    /// Waits for an execute() in progress on another thread. Called from inside the function it returns at once.
    virtual void waitEndOfExecutionIfAny() = 0;
};

/// A function with its period and the time of its last start.
///
/// The next due time is one period after the last start, not after the last due time: a late start moves the schedule,
/// and missed periods are not made up. A new item is due when the machine has been up for one period, so as a rule at
/// once.
///
/// Whatever the function throws is logged and goes no further: the first time at Error, every later time at Trace.
///
/// Threads: everything may be called from any thread. A recursive mutex, held while the function runs, keeps one
/// execute() from overlapping another.
///
/// Hazards of the exact build:
/// - nextDueTime() reads the last start without that mutex. During an execution, a 32-bit machine may see half of
///   it changed, and so a due time that is off by seconds.
/// - Whether an exception was logged before is kept outside that mutex. Two threads that execute one after the other,
///   and both fail for the first time, may both log at Error.
class HALDEN_CPPUTILS_EXPORT PcmItem : public PcmItemIfc, protected virtual Log::Logger
{
public:
    /// @param function may be empty: each execution then logs a std::bad_function_call
    /// @param period   not checked: zero or less is always due; beyond 292 years it counts as that long
    PcmItem(std::function<void()> function, std::chrono::milliseconds period);

    PcmItem(PcmItem const&) = delete;
    PcmItem& operator=(PcmItem const&) = delete;

    virtual ~PcmItem();

    /// Counts as a start, and so moves the due time on, even when the execution is forbidden.
    void execute() override;

    bool isDueWithin(std::chrono::milliseconds within) const override;
    std::chrono::steady_clock::time_point nextDueTime() const override;
    std::chrono::milliseconds period() const override;
    void forbidFurtherExecutions() override;
    void waitEndOfExecutionIfAny() override;

private:
    std::chrono::milliseconds const period_;
    std::function<void()> const function;
    std::recursive_mutex executionMutex; // held for the whole of execute(), the call of the function included
    std::chrono::steady_clock::time_point lastExecutionStart{}; // written under executionMutex, read without it
    std::atomic<bool> executionForbidden{false};
    bool exceptionAlreadyLogged{false}; // read and written by execute(), after it has released the mutex
};

#pragma GCC diagnostic pop

}
