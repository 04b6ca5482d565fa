#pragma once

#include <chrono>
#include <ctime>

namespace Halden::Tavro::TestSupport
{

inline std::chrono::nanoseconds toDuration(timespec const& time)
{
    return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
}

}
