#pragma once

#include <utils/Export.h>

#include <chrono>

namespace Halden::Tavro::Utils
{

/// Decides, call by call, whether to report a delay now.
///
///     if (lateness.delay(stampOfLastSample, 100ms, 3))
///     {
///         reportLateness();
///     }
///
/// Stamps are times of nowInMs(). Lateness is measured against a reference, which starts at zero. A new object answers
/// false until a stamp far enough ahead has become the reference.
///
/// Threads: one at a time; nothing here locks.
class HALDEN_CPPUTILS_EXPORT RateLimited
{
public:
    /// Counts as the last call of delay().
    RateLimited();

    /// The steady clock in whole milliseconds.
    static std::chrono::milliseconds nowInMs();

    /// Decides for one stamp.
    ///
    /// First, a stamp more than (`tolerance` + 2) intervals ahead of the reference becomes the reference. Then a delay
    /// is reported, and the stamp becomes the reference, when more than one interval has passed since the reference. It
    /// is not reported, however,
    /// - a second time for the same reference,
    /// - when more than two intervals have passed since the reference, and at most one since the last call,
    /// - for a stamp of zero or less.
    ///
    /// Sums that 64 bits cannot hold count as the greatest or least value: with the greatest interval nothing is ever
    /// reported.
    bool delay(std::chrono::milliseconds const& stamp, std::chrono::milliseconds const& interval,
               unsigned char tolerance);

private:
    bool isDelayed(std::chrono::milliseconds stamp, std::chrono::milliseconds interval,
                   std::chrono::milliseconds now) const;

    std::chrono::milliseconds reported{0}; // the stamp of the last positive answer
    std::chrono::milliseconds reference{0};
    std::chrono::milliseconds lastCall;
};

}
