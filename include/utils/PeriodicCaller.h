#pragma once

#include <log/Logger.h>
#include <utils/Export.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

namespace Halden::Tavro::Utils
{

/// Calls one function again and again, on a thread of its own, until stopped.
///
///     PeriodicCaller blink(500ms, "led", [](auto const&) { toggleLed(); });
///     blink.start();
///
/// The first call comes after one pause. The pause runs from the end of a call to the start of the next: the schedule
/// slips and never catches up. The monotonic clock measures it, and stands still during a suspend. The time that the
/// callback is told is that of the wall clock, and so jumps when the clock is set.
///
/// A std::exception out of the callback, such as the std::bad_function_call of an empty one, is logged at Critical and
/// ends the worker. Stop the caller before you start it again. Any other exception ends the process.
///
/// Threads: start(), stop() and the destructor belong to one controlling thread, never to the callback, which runs on
/// the worker with the object's mutex held.
class HALDEN_CPPUTILS_EXPORT PeriodicCaller : private Log::Logger
{
public:
    /// Gets the wall-clock time since the previous call ended.
    using Callback = std::function<void(std::chrono::microseconds const&)>;

    /// @param period   pause between two calls; zero or less means none
    /// @param name     becomes part of the logger's name
    /// @param callback gets the wall-clock time since the previous call ended, at first since the worker started
    PeriodicCaller(std::chrono::microseconds period, std::string name, Callback const& callback);

    PeriodicCaller(PeriodicCaller const&) = delete;
    PeriodicCaller& operator=(PeriodicCaller const&) = delete;

    /// Stops first, see stop().
    ~PeriodicCaller();

    /// Starts the worker.
    ///
    /// @throws std::runtime_error "PeriodicCaller is already started. Name = '...'" when started before and not stopped
    ///                            since, also when the worker has ended by itself
    /// @throws std::system_error  when the thread cannot be made; start() may be tried again
    void start();

    /// Waits for a call in progress. Does nothing when not started.
    void stop();

private:
    void periodicCallerThread();

    Callback const callback;
    std::string const name;
    std::chrono::microseconds const period;
    std::mutex mutex; // held during a call, released only while waiting
    std::atomic<bool> running{true};
    std::condition_variable wakeup;
    std::unique_ptr<std::thread> thread; // null unless started; the controlling thread's
};

}
