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
    /// Runs the function once. Never throws.
    virtual void execute() = 0;

    /// @return true when nextDueTime() is earlier than now plus `within`, not when it is exactly then
    virtual bool isDueWithin(std::chrono::milliseconds within) const = 0;

    virtual std::chrono::steady_clock::time_point nextDueTime() const = 0;

    virtual std::chrono::milliseconds period() const = 0;

    /// From now on execute() does not call the function. Does not wait for a call in progress, and is final.
    virtual void forbidFurtherExecutions() = 0;

    /// Waits for an execute() in progress on another thread. Called from inside the function it returns at once.
    virtual void waitEndOfExecutionIfAny() = 0;
};

/// A function with its period and the time at which it last started.
///
/// Due times count from the last start, never from the previous due time: a late start moves the schedule, and missed
/// periods are not made up. A fresh item is due at the steady clock's epoch plus its period, so at once, unless the
/// machine has been up for less than one period.
///
/// Whatever the function throws is logged and swallowed: the first time at severity Error, ever after at Trace.
///
/// Threads: everything may be called from any thread. execute() calls exclude each other by a recursive mutex, which is
/// held while the function runs.
///
/// Hazards of the exact build:
/// - nextDueTime() reads the last start without the mutex under which it is written: beside an execution, a 32-bit
///   machine may see half of it, and so a due time that is off by seconds.
/// - The memory of the first exception is kept outside the mutex: two executions that throw at once, on two threads,
/// may
///   both be logged as the first.
class HALDEN_CPPUTILS_EXPORT PcmItem : public PcmItemIfc, protected virtual Log::Logger
{
public:
    /// @param function may be empty: each execution then ends in a logged std::bad_function_call
    /// @param period   not checked; zero or less is due at all times; beyond 292 years it counts as that long
    PcmItem(std::function<void()> function, std::chrono::milliseconds period);

    PcmItem(PcmItem const&) = delete;
    PcmItem& operator=(PcmItem const&) = delete;

    virtual ~PcmItem();

    /// Counts as a start, and moves the due time on, also when the execution is forbidden.
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
    std::chrono::steady_clock::time_point lastExecutionStart{}; // under executionMutex, but not when it is read
    std::atomic<bool> executionForbidden{false};
    bool exceptionAlreadyLogged{false}; // by whoever executes, after the mutex is released
};

#pragma GCC diagnostic pop

}
