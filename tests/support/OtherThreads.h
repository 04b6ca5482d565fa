#pragma once

#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <map>
#include <stdexcept>
#include <string>
#include <thread>

// What the kernel knows of the threads of this process, but for the calling one. Needs nothing but itself.
namespace Halden::Tavro::TestSupport::OtherThreads
{

struct State
{
    std::string state;       ///< as in proc(5): S is asleep
    unsigned long sleeps{0}; ///< how often it has gone to sleep
};

inline bool operator==(State const& left, State const& right)
{
    return left.state == right.state && left.sleeps == right.sleeps;
}

/// By their numbers.
inline std::map<std::string, State> states()
{
    std::map<std::string, State> found;
    for (auto const& task : std::filesystem::directory_iterator("/proc/self/task"))
    {
        State thread;
        std::ifstream status(task.path() / "status");
        for (std::string word; status >> word;)
        {
            if (word == "State:")
            {
                status >> thread.state;
            }
            else if (word == "voluntary_ctxt_switches:")
            {
                status >> thread.sleeps;
            }
        }
        found[task.path().filename()] = thread;
    }
    found.erase(std::to_string(gettid()));
    return found;
}

/// Returns when all of them sleep and none has run between two looks at them: a request that comes now finds its thread
/// asleep, and not in the moment before.
///
/// @throws std::runtime_error when that has not come within 30 s
inline void awaitRest()
{
    auto const deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    auto const rest = [](std::map<std::string, State> const& threads)
    {
        for (auto const& [number, thread] : threads)
        {
            if (thread.state != "S")
            {
                return false;
            }
        }
        return true;
    };
    for (auto before = states();;)
    {
        auto const after = states();
        if (rest(after) && after == before)
        {
            return;
        }
        if (std::chrono::steady_clock::now() > deadline)
        {
            throw std::runtime_error("the other threads do not come to rest");
        }
        before = after;
        std::this_thread::yield();
    }
}

/// How often they have gone to sleep so far, all together.
inline unsigned long sleeps()
{
    unsigned long sum = 0;
    for (auto const& [number, thread] : states())
    {
        sum += thread.sleeps;
    }
    return sum;
}

}
