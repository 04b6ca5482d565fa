#pragma once

#include <utils/Export.h>

#include <chrono>

namespace Halden::Tavro::Utils
{

/// Decides, call by call, whether a delay is to be reported now.
///
///     if (lateness.delay(stampOfLastSample, 100ms, 3))
///     {
///         reportLateness();
///     }
///
/// Stamps count milliseconds of nowInMs(). The reference is the stamp against which lateness is measured. It starts at
/// zero, and a new object answers false until a stamp far enough ahead has moved it.
///
/// Threads: one at a time; nothing here locks.
class HALDEN_CPPUTILS_EXPORT RateLimited
{
public:
    /// Counts as a call of delay() as far as the time of the last call goes.
    RateLimited();

    /// The steady clock in whole milliseconds.
    static std::chrono::milliseconds nowInMs();

    /// Decides for one stamp.
    ///
    /// A stamp more than `tolerance` + 2 intervals ahead of the reference becomes the reference. Then a delay is
    /// reported when more than one interval has passed since the reference, and the stamp becomes the reference. It is
    /// not reported
    /// - a second time for the same reference,
    /// - when more than two intervals have passed since the reference and at most one since the last call,
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
