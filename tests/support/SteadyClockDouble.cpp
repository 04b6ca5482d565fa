#include "support/SteadyClockDouble.h"

#include "support/ClockTime.h"

#include <ctime>

#include <mutex>
#include <optional>

namespace Halden::Tavro::TestSupport
{

namespace
{

struct State
{
    std::mutex mutex;
    std::optional<std::chrono::nanoseconds> now;         // guarded by mutex; empty while the real clock answers
    std::chrono::nanoseconds step{0};                    // guarded by mutex
    std::optional<std::chrono::nanoseconds> goesOnSince; // guarded by mutex; on the real clock; empty while it stands
    std::size_t readings{0};                             // guarded by mutex
};

State& state()
{
    static State instance;
    return instance;
}

std::chrono::nanoseconds read()
{
    std::lock_guard const lock(state().mutex);
    if (!state().now.has_value())
    {
        return timeOf(CLOCK_MONOTONIC);
    }
    ++state().readings;
    if (state().goesOnSince.has_value())
    {
        return *state().now + (timeOf(CLOCK_MONOTONIC) - *state().goesOnSince);
    }
    auto const answer = *state().now;
    auto const last = std::chrono::nanoseconds::max() - state().step;
    state().now = answer < last ? answer + state().step : std::chrono::nanoseconds::max();
    return answer;
}

}

SteadyClockDouble::SteadyClockDouble(std::chrono::nanoseconds now)
{
    std::lock_guard const lock(state().mutex);
    state().now = now;
    state().goesOnSince.reset();
    state().step = std::chrono::nanoseconds(0);
    state().readings = 0;
}

SteadyClockDouble::~SteadyClockDouble()
{
    std::lock_guard const lock(state().mutex);
    state().now.reset();
}

void SteadyClockDouble::set(std::chrono::nanoseconds now)
{
    std::lock_guard const lock(state().mutex);
    state().now = now;
    state().goesOnSince.reset();
}

void SteadyClockDouble::goOn()
{
    std::lock_guard const lock(state().mutex);
    state().goesOnSince = timeOf(CLOCK_MONOTONIC);
}

void SteadyClockDouble::advanceWithEachReading(std::chrono::nanoseconds step)
{
    std::lock_guard const lock(state().mutex);
    state().step = step;
}

std::size_t SteadyClockDouble::readings() const
{
    std::lock_guard const lock(state().mutex);
    return state().readings;
}

}

// Stands in for the standard library's, in the program as in the shared libraries it uses.
std::chrono::steady_clock::time_point std::chrono::steady_clock::now() noexcept // NOLINT(cert-dcl58-cpp): the double
{
    return time_point(Halden::Tavro::TestSupport::read());
}
