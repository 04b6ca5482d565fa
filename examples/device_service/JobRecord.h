#pragma once

#include "Jobs.h"

#include <chrono>
#include <mutex>
#include <string>
#include <vector>

namespace DeviceService
{

using Clock = std::chrono::steady_clock;

/// One execution of a job.
struct Run
{
    Clock::time_point due;
    Clock::time_point start;
    Clock::time_point end;
    bool failed{false};

    Clock::duration lateness() const { return start - due; }
    Clock::duration runTime() const { return end - start; }
};

/// A job and what became of its executions. The scheduler's threads write, the main thread reads.
class JobRecord
{
public:
    /// @param due when the first execution should start
    JobRecord(Job job, Clock::time_point due);

    /// Runs the job once and notes it, also when the job throws.
    void run();

    std::string const& name() const { return job.name; }
    std::chrono::milliseconds period() const { return job.period; }
    std::vector<Run> runs() const;

    /// What the job found last.
    std::string reading() const;

private:
    void note(Clock::time_point start, std::string const* found);

    Job const job;
    mutable std::mutex mutex;     // never held while the job runs
    Clock::time_point due;        // guarded by mutex
    std::vector<Run> noted;       // guarded by mutex
    std::string lastReading{"-"}; // guarded by mutex
};

}
