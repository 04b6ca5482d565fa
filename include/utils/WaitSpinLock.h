#pragma once

#include <utils/Export.h>

#include <algorithm>
#include <chrono>

namespace Halden::Tavro::Utils
{

/// Waits by spinning on the steady clock, for microseconds, where sleeping would overshoot. Constructing it is the
/// wait:
///
///     WaitSpinLock(5us);
///
/// It occupies a processor all the while. Despite its name it locks nothing.
///
/// Threads: any.
class HALDEN_CPPUTILS_EXPORT WaitSpinLock
{
public:
    /// Returns when at least the duration has passed, or at once when it is zero or negative.
    explicit WaitSpinLock(std::chrono::microseconds const& duration)
    {
        using std::chrono::microseconds;
        using std::chrono::nanoseconds;
        // Longer than the clock can tell is as long as it can, about 292 years, so that the nanoseconds fit.
        auto const longest = std::chrono::duration_cast<microseconds>(nanoseconds::max());
        nanoseconds const wait = std::clamp(duration, microseconds::zero(), longest);

        auto const start = std::chrono::steady_clock::now();
        while (std::chrono::steady_clock::now() - start < wait)
        {
            // kept: [spin-wait] neither sleeps nor yields, as the scheduler would overshoot
        }
    }

    virtual ~WaitSpinLock();
};

}
