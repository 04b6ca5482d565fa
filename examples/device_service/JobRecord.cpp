#include "JobRecord.h"

#include <utility>

namespace DeviceService
{

JobRecord::JobRecord(Job job, Clock::time_point due)
    : job(std::move(job))
    , due(due)
{
}

void JobRecord::run()
{
    auto const start = Clock::now();
    try
    {
        std::string const found = job.function();
        note(start, &found);
    }
    catch (...)
    {
        note(start, nullptr);
        throw; // the library logs it
    }
}

void JobRecord::note(Clock::time_point start, std::string const* found)
{
    std::lock_guard const lock(mutex);
    noted.push_back({due, start, Clock::now(), found == nullptr});
    due = start + job.period;
    lastReading = found == nullptr ? "failed" : *found;
}

std::vector<Run> JobRecord::runs() const
{
    std::lock_guard const lock(mutex);
    return noted;
}

std::string JobRecord::reading() const
{
    std::lock_guard const lock(mutex);
    return lastReading;
}

}
