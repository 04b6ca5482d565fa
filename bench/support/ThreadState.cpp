#include "support/ThreadState.h"

#include <chrono>
#include <fstream>
#include <stdexcept>
#include <string>
#include <thread>

namespace Halden::Tavro::Bench
{

namespace
{

/// @return the first word after the key in the thread's status file
std::string statusOf(pid_t thread, std::string const& key)
{
    std::ifstream status("/proc/self/task/" + std::to_string(thread) + "/status");
    for (std::string word; status >> word;)
    {
        if (word == key)
        {
            status >> word;
            return word;
        }
    }
    throw std::runtime_error("No " + key + " of thread " + std::to_string(thread));
}

}

void waitUntilAsleep(pid_t thread)
{
    auto const deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (statusOf(thread, "State:") != "S")
    {
        if (std::chrono::steady_clock::now() > deadline)
        {
            throw std::runtime_error("Thread does not sleep");
        }
        std::this_thread::yield();
    }
}

unsigned long sleepsOf(pid_t thread)
{
    return std::stoul(statusOf(thread, "voluntary_ctxt_switches:"));
}

}
