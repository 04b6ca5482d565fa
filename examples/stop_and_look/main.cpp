// Holds a worker at a point of its work and reads the values that it has published there.
//
//     stop_and_look --jobs 3

#include "../support/Program.h"

#include <utils/CodeMonitor.h>

#include <chrono>
#include <functional>
#include <future>
#include <iostream>
#include <stdexcept>
#include <string>

using Halden::Tavro::Utils::CodeMonitor;
using namespace std::chrono_literals;

namespace
{

struct Progress
{
    std::string phase;
};

/// The code under test: adds up 1 to n. The monitor shows its inner state at the end of the first phase.
unsigned long long addUp(unsigned n, CodeMonitor& monitor)
{
    Progress progress{"adding"};
    unsigned long long sum = 0;
    for (unsigned i = 1; i <= n; ++i)
    {
        sum += i;
    }

    monitor.setArgument("sum", sum);
    monitor.setArgument("progress", &progress);
    monitor.crossBarrier(); // one atomic read, unless somebody wants to look

    progress.phase = "done";
    return sum;
}

/// @throws std::runtime_error when the worker has not come to the barrier
void lookAtJob(unsigned n, CodeMonitor& monitor)
{
    monitor.closeBarrier(); // before the worker gets there
    auto worker = std::async(std::launch::async, addUp, n, std::ref(monitor));

    bool const held = monitor.waitTrapped(10s);
    if (held)
    {
        auto const sum = monitor.getArgument("sum").value.uint64;
        auto const* progress = static_cast<Progress const*>(monitor.getArgument("progress").value.pointer);
        std::cout << "job " << n << ": held while " << progress->phase << ", the sum is " << sum << '\n';
    }
    monitor.openBarrier();
    std::cout << "job " << n << ": released, the result is " << worker.get() << '\n';
    if (!held)
    {
        throw std::runtime_error("the worker has not come to the barrier");
    }
}

int look(unsigned jobs)
{
    CodeMonitor monitor("addUp");
    for (unsigned job = 1; job <= jobs; ++job)
    {
        lookAtJob(job, monitor);
    }
    std::cout << "open barrier: the result is " << addUp(jobs, monitor) << '\n';
    return 0;
}

}

int main(int argc, char** argv) // NOLINT(bugprone-exception-escape): may end the program
{
    unsigned jobs = 3;
    Program program("Holds a worker at a point of its work and looks at its values.");
    program.option("--jobs", jobs, "How many jobs to look at").showDefault();
    return program.run(argc, argv, [&] { return look(jobs); });
}
