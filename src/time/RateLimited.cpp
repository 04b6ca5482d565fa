#include <utils/RateLimited.h>

#include <cstdint>
#include <limits>

namespace Halden::Tavro::Utils
{

namespace
{

std::int64_t limitOfSign(bool negative)
{
    return negative ? std::numeric_limits<std::int64_t>::min() : std::numeric_limits<std::int64_t>::max();
}

/// start + factor * interval, held within 64 bits. The factor is positive.
std::chrono::milliseconds after(std::chrono::milliseconds start, int factor, std::chrono::milliseconds interval)
{
    std::int64_t distance = 0;
    if (__builtin_mul_overflow(static_cast<std::int64_t>(interval.count()), factor, &distance))
    {
        distance = limitOfSign(interval.count() < 0);
    }
    std::int64_t sum = 0;
    if (__builtin_add_overflow(static_cast<std::int64_t>(start.count()), distance, &sum))
    {
        sum = limitOfSign(distance < 0);
    }
    return std::chrono::milliseconds(sum);
}

}

RateLimited::RateLimited()
    : lastCall(nowInMs())
{
}

std::chrono::milliseconds RateLimited::nowInMs()
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now().time_since_epoch());
}

bool RateLimited::delay(std::chrono::milliseconds const& stamp, std::chrono::milliseconds const& interval,
                        unsigned char tolerance)
{
    auto const now = nowInMs();
    if (after(reference, tolerance + 2, interval) < stamp)
    {
        reference = stamp;
    }
    bool const delayed = isDelayed(stamp, interval, now);
    if (delayed)
    {
        reported = stamp;
        reference = stamp;
    }
    lastCall = now;
    return delayed;
}

bool RateLimited::isDelayed(std::chrono::milliseconds stamp, std::chrono::milliseconds interval,
                            std::chrono::milliseconds now) const
{
    if (reported == reference)
    {
        return false;
    }
    if (after(reference, 2, interval) < now && now - lastCall <= interval)
    {
        return false;
    }
    return stamp.count() > 0 && after(reference, 1, interval) < now;
}

}
