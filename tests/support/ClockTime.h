#pragma once

#include <time.h>

#include <chrono>

/// Times as the system's functions give and take them.
namespace Halden::Tavro::TestSupport
{

inline std::chrono::nanoseconds toDuration(timespec const& time)
{
    return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
}

inline timespec toTimespec(std::chrono::nanoseconds time)
{
    auto const seconds = std::chrono::duration_cast<std::chrono::seconds>(time);
    return {static_cast<time_t>(seconds.count()), static_cast<long>((time - seconds).count())};
}

/// What that clock of the system shows, whatever a double makes of std::chrono's.
inline std::chrono::nanoseconds timeOf(clockid_t clock)
{
    timespec now{};
    clock_gettime(clock, &now);
    return toDuration(now);
}

}
