#pragma once

#include <chrono>
#include <cstddef>
#include <functional>

/// Sees into the sleep of scheduler threads. For test programs that list
/// scheduling/SchedulerSleep.cpp among their sources.
///
/// It stands in for the C functions beneath std::condition_variable, and so knows of each sleep when it begins, until
/// when it lasts and when somebody asks for its end. The deadline is one of the program's steady clock, which may be a
/// SteadyClockDouble; the system sleeps for what is left of it. Not for programs in which anything but one scheduler at
/// a time waits on a condition with a limit, which would be taken for it, nor where doubles must leave the timing
/// alone.
namespace Halden::Tavro::TestSupport::SchedulerSleep
{

/// Returns when the manager that slept last is in a sleep that goes on for at least that time, all requests served.
/// Then it is not reading its list, and every request wakes it.
///
/// In the exact build a request that comes between a scheduler's last look and its sleep is lost, and a removal beside
/// its scan is a race, so a test waits here before it destroys a manager or a token.
void await(std::chrono::milliseconds atLeast = std::chrono::seconds(5));

/// How many sleeps have begun.
std::size_t count();

/// How many wake-ups have been asked for and are out: who sleeps from then on does not hear of them.
std::size_t requests();

/// Calls the function once, on the next scheduler thread that is between its last look and its sleep, so under the
/// mutex which requests take in the hardened build.
void beforeNext(std::function<void()> function);

}
