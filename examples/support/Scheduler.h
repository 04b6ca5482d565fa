#pragma once

#include <chrono>
#include <thread>

/// Lets the scheduler of a manager fall asleep, which does not notice what is asked of it in the instant before: the
/// first function, or the end of the manager after the last one, for which it would sleep without end.
///
/// @param wake how long it may sleep before it wakes once more, for a function that has gone
inline void letSchedulerSleep(std::chrono::milliseconds wake = {})
{
    std::this_thread::sleep_for(wake + std::chrono::milliseconds(200));
}
