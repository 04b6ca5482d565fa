#include <utils/CodeMonitor.h>

#include "build/Hardened.h"

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <limits>
#include <stdexcept>
#include <utility>

namespace Halden::Tavro::Utils
{

namespace
{

/// What a missed notification costs at most.
constexpr std::chrono::milliseconds longestWait{50};

constexpr int looks = 50;

/// Whether a crossing thread goes on waiting. Opening the barrier resets `trapped`, which only that thread sets: so the
/// hardened build notices an opening even when the barrier has been closed again.
bool isHeld(bool closed, bool trapped)
{
    return hardened ? closed && trapped : closed; // kept: [reclosed-barrier] the exact build waits for an open barrier
}

timespec toTimespec(std::chrono::milliseconds duration)
{
    auto const seconds = std::chrono::duration_cast<std::chrono::seconds>(duration);
    std::int64_t const longest = std::numeric_limits<std::time_t>::max(); // 68 years where time_t has 32 bits
    timespec result{};
    result.tv_sec = static_cast<std::time_t>(std::min<std::int64_t>(seconds.count(), longest));
    result.tv_nsec = static_cast<long>(std::chrono::nanoseconds(duration - seconds).count());
    return result;
}

void sleepFor(std::chrono::milliseconds duration)
{
    timespec left = toTimespec(duration);
    while (nanosleep(&left, &left) != 0 && errno == EINTR)
    {
        // goes on with what is left
    }
}

}

CodeMonitor::CodeMonitor(std::string name)
    : name(std::move(name))
{
    if (this->name.empty())
    {
        throw std::invalid_argument("Name can't be empty");
    }
}

void CodeMonitor::closeBarrier()
{
    if (closed)
    {
        throw std::runtime_error("Barrier already closed");
    }
    trapped = false;
    arguments.clear();
    closed = true;
}

bool CodeMonitor::waitForRelease()
{
    trapped = true;
    std::unique_lock lock(mutex);
    while (isHeld(closed, trapped))
    {
        released.wait_for(lock, longestWait); // openBarrier() notifies without the mutex, so it can be missed
    }
    return true;
}

bool CodeMonitor::openBarrier()
{
    if (!closed)
    {
        throw std::runtime_error("Barrier is not closed");
    }
    bool const wasTrapped = trapped;
    closed = false;
    trapped = false;
    released.notify_all();
    return wasTrapped;
}

bool CodeMonitor::trappedAtBarrier()
{
    std::lock_guard const lock(mutex);
    return trapped;
}

bool CodeMonitor::waitTrapped(std::chrono::milliseconds const& timeout)
{
    auto const slice = timeout / looks;
    for (int look = 0; look < looks; ++look)
    {
        if (trapped)
        {
            return true;
        }
        if (slice.count() > 0)
        {
            sleepFor(slice);
        }
    }
    // kept: [no-look-after-the-last-slice] no look after the last slice, so a thread that comes then counts for the
    // next call
    return false;
}

void CodeMonitor::setArgument(std::string const& argument, RuntimeTypedData value)
{
    arguments.insert_or_assign(argument, value);
}

void CodeMonitor::setArgument(std::string const& argument, unsigned long long value)
{
    RuntimeTypedData data;
    data.value.uint64 = value;
    data.type = RuntimeTypedData::Type::Uint64;
    setArgument(argument, data);
}

void CodeMonitor::setArgument(std::string const& argument, void* value)
{
    RuntimeTypedData data;
    data.value.pointer = value;
    data.type = RuntimeTypedData::Type::Pointer;
    setArgument(argument, data);
}

RuntimeTypedData& CodeMonitor::getArgument(std::string const& argument)
{
    auto const found = arguments.find(argument);
    if (found == arguments.end())
    {
        throw std::out_of_range("No argument with name '" + argument + "'");
    }
    return found->second;
}

}
