#pragma once

#include <chrono>
#include <cstddef>

namespace Halden::Tavro::TestSupport
{

/// Answers every reading of the steady clock in this process, for as long as it lives; the real clock does otherwise.
///
/// For test programs that list support/SteadyClockDouble.cpp among their sources. One at a time; it may be read from
/// any thread but set from one only.
class SteadyClockDouble
{
public:
    explicit SteadyClockDouble(std::chrono::nanoseconds now);
    ~SteadyClockDouble();

    SteadyClockDouble(SteadyClockDouble const&) = delete;
    SteadyClockDouble& operator=(SteadyClockDouble const&) = delete;

    void set(std::chrono::nanoseconds now);

    /// From now on each reading moves the clock on, so that the next one is later; it stops at the greatest time.
    void advanceWithEachReading(std::chrono::nanoseconds step);

    /// From now on time passes as on the machine's own clock, until the next set().
    ///
    /// std::future's wait_for() then hands the system a time that its clock reaches much later or earlier;
    /// becomesReady() does not. The condition variables' needs the double in scheduling/SchedulerSleep.cpp.
    void goOn();

    /// Readings since the construction.
    std::size_t readings() const;
};

}
