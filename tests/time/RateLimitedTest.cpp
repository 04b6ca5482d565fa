#include <utils/RateLimited.h>

#include "support/SteadyClockDouble.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <random>
#include <type_traits>

namespace Halden::Tavro::Utils
{

namespace
{

using namespace TestSupport;
using namespace std::chrono_literals;

using std::chrono::milliseconds;

TEST(RateLimitedTest, IsThreeCountsOfMillisecondsAndNotPolymorphic)
{
    EXPECT_FALSE(std::is_polymorphic_v<RateLimited>);
    EXPECT_EQ(sizeof(RateLimited), 3 * sizeof(milliseconds));
}

TEST(RateLimitedTest, ClockIsTruncatedToWholeMilliseconds)
{
    SteadyClockDouble clock(41'999'999ns);
    EXPECT_EQ(RateLimited::nowInMs(), 41ms);

    clock.set(42'000'000ns);
    EXPECT_EQ(RateLimited::nowInMs(), 42ms);
}

TEST(RateLimitedTest, ReadsTheClockOncePerConstructionAndOncePerCall)
{
    SteadyClockDouble const clock(10s);
    RateLimited sut;
    EXPECT_EQ(clock.readings(), 1U);

    sut.delay(9850ms, 100ms, 0);
    EXPECT_EQ(clock.readings(), 2U);
}

TEST(RateLimitedTest, NewObjectWithStampZeroIsNotDelayed)
{
    SteadyClockDouble const clock(10s);
    RateLimited sut;

    EXPECT_FALSE(sut.delay(0ms, 100ms, 0));
}

TEST(RateLimitedTest, FalseAnswerWithoutStampUpdatesTheLastCall)
{
    SteadyClockDouble clock(9s);
    RateLimited sut;
    clock.set(10s);
    sut.delay(0ms, 100ms, 0);
    clock.set(10s + 50ms);

    // More than two intervals late, so that only an interval without calls would let it through.
    EXPECT_FALSE(sut.delay(9s, 100ms, 0));
}

// kept: a service that has just started reports no delay
TEST(RateLimitedTest, NewObjectIsSilentUntilAStampRunsAhead)
{
    SteadyClockDouble const clock(10s);
    RateLimited sut;

    EXPECT_FALSE(sut.delay(200ms, 100ms, 0)); // two intervals are not more than two
    EXPECT_FALSE(sut.delay(9950ms, 9999ms, 0));
    EXPECT_TRUE(sut.delay(9850ms, 100ms, 0));
}

TEST(RateLimitedTest, ReportedStampIsNotReportedAgain)
{
    SteadyClockDouble clock(10s);
    RateLimited sut;
    ASSERT_TRUE(sut.delay(9850ms, 100ms, 0));

    clock.set(20s);
    EXPECT_FALSE(sut.delay(9850ms, 100ms, 0));
}

TEST(RateLimitedTest, AfterAReportTheNextNeedsAStampThatRunsAhead)
{
    SteadyClockDouble clock(10s);
    RateLimited sut;
    ASSERT_TRUE(sut.delay(9850ms, 100ms, 1));

    clock.set(10s + 301ms);
    EXPECT_FALSE(sut.delay(9850ms + 300ms, 100ms, 1)); // three intervals are not more than three
    EXPECT_TRUE(sut.delay(9850ms + 301ms, 100ms, 1));
}

TEST(RateLimitedTest, StampWithinTheIntervalIsNotDelayed)
{
    SteadyClockDouble clock(10s);
    RateLimited sut;

    EXPECT_FALSE(sut.delay(9900ms, 100ms, 0)); // exactly one interval
    clock.set(10s + 1ms);
    EXPECT_TRUE(sut.delay(9900ms, 100ms, 0));
}

TEST(RateLimitedTest, StampBeyondTheReferenceIsMeasuredFromTheReference)
{
    SteadyClockDouble clock(10s);
    RateLimited sut;
    ASSERT_FALSE(sut.delay(9900ms, 100ms, 0)); // now the reference

    clock.set(10s + 50ms);
    EXPECT_TRUE(sut.delay(10s + 40ms, 100ms, 0)); // itself 10 ms old, the reference 150 ms
}

/// The answer to a reference that has this age, half an interval after another call.
bool isReportedAmongFrequentCalls(milliseconds age)
{
    SteadyClockDouble clock(10s);
    RateLimited sut;
    EXPECT_FALSE(sut.delay(9950ms, 100ms, 0)); // now the reference

    clock.set(9950ms + age - 50ms);
    EXPECT_FALSE(sut.delay(0ms, 100ms, 0)); // a call without a stamp, to be the last one
    clock.set(9950ms + age);
    return sut.delay(9950ms, 100ms, 0);
}

TEST(RateLimitedTest, FrequentCallsAreReportedUpToTwoIntervals)
{
    EXPECT_TRUE(isReportedAmongFrequentCalls(200ms));
    EXPECT_FALSE(isReportedAmongFrequentCalls(201ms));
}

TEST(RateLimitedTest, CallAfterMoreThanAnIntervalIsReportedHoweverLate)
{
    SteadyClockDouble clock(10s);
    RateLimited sut;
    ASSERT_FALSE(sut.delay(9950ms, 100ms, 0));

    clock.set(20s);
    ASSERT_FALSE(sut.delay(0ms, 100ms, 0));
    clock.set(20s + 100ms);
    EXPECT_FALSE(sut.delay(9950ms, 100ms, 0)); // exactly an interval since the last call
    clock.set(20s + 201ms);
    EXPECT_TRUE(sut.delay(9950ms, 100ms, 0));
}

TEST(RateLimitedTest, StampOfZeroOrLessIsNeverReported)
{
    SteadyClockDouble clock(10s);
    RateLimited sut;
    ASSERT_FALSE(sut.delay(9950ms, 100ms, 0));

    clock.set(10s + 101ms);
    EXPECT_FALSE(sut.delay(0ms, 100ms, 0));
    clock.set(10s + 102ms);
    EXPECT_FALSE(sut.delay(-1ms, 100ms, 0));
    clock.set(10s + 103ms);
    EXPECT_TRUE(sut.delay(1ms, 100ms, 0));
}

TEST(RateLimitedTest, GreatestTolerancesDoNotWrap)
{
    for (unsigned char const tolerance : {std::uint8_t{253}, std::uint8_t{254}, std::uint8_t{255}})
    {
        auto const allowed = 100ms * (tolerance + 2);
        SteadyClockDouble const clock(allowed + 150ms);
        RateLimited sut;

        EXPECT_FALSE(sut.delay(allowed, 100ms, tolerance));
        EXPECT_TRUE(sut.delay(allowed + 1ms, 100ms, tolerance));
    }
}

TEST(RateLimitedTest, GreatestIntervalIsNeverOver)
{
    SteadyClockDouble clock(10s);
    RateLimited sut;
    ASSERT_FALSE(sut.delay(9950ms, 100ms, 0));

    clock.set(std::chrono::nanoseconds::max());
    EXPECT_FALSE(sut.delay(9950ms, milliseconds::max(), 0));
    EXPECT_FALSE(sut.delay(9950ms, milliseconds::max(), 255));
    EXPECT_FALSE(sut.delay(milliseconds::max(), milliseconds::max(), 255));
}

TEST(RateLimitedTest, NoStampRunsAheadOfTheGreatestInterval)
{
    SteadyClockDouble clock(10s);
    RateLimited sut;
    ASSERT_FALSE(sut.delay(9950ms, 100ms, 0)); // now the reference

    ASSERT_FALSE(sut.delay(10s + 40ms, milliseconds::max(), 0));
    clock.set(10s + 60ms);
    EXPECT_TRUE(sut.delay(10s + 40ms, 100ms, 0)); // itself 20 ms old, the reference still 110 ms
}

TEST(RateLimitedTest, LeastIntervalIsAlwaysOver)
{
    SteadyClockDouble const clock(10s);
    RateLimited sut;

    EXPECT_TRUE(sut.delay(9950ms, milliseconds::min(), 255));
}

TEST(RateLimitedTest, GreatestStampIsNotDelayed)
{
    SteadyClockDouble const clock(10s);
    RateLimited sut;

    EXPECT_FALSE(sut.delay(milliseconds::max(), 100ms, 255));
    EXPECT_FALSE(sut.delay(milliseconds::max(), milliseconds::max(), 255));
    EXPECT_FALSE(sut.delay(milliseconds::min(), milliseconds::max(), 255));
}

/// The decision in plain numbers and differences, with a count of what led to each answer.
class Model
{
public:
    enum Reason
    {
        AlreadyReported,
        TooFrequent,
        NoStamp,
        NotLate,
        Delayed
    };

    explicit Model(std::int64_t now)
        : lastCall(now)
    {
    }

    Reason delay(std::int64_t now, std::int64_t stamp, std::int64_t interval, int tolerance)
    {
        std::int64_t const ahead = stamp - reference;
        if (ahead > interval * tolerance + interval + interval)
        {
            reference = stamp;
        }
        std::int64_t const late = now - reference;
        std::int64_t const sinceLastCall = now - lastCall;
        lastCall = now;
        if (reported == reference)
        {
            return AlreadyReported;
        }
        if (late > interval + interval && sinceLastCall <= interval)
        {
            return TooFrequent;
        }
        if (stamp <= 0)
        {
            return NoStamp;
        }
        if (late <= interval)
        {
            return NotLate;
        }
        reported = reference = stamp;
        return Delayed;
    }

private:
    std::int64_t reported{0};
    std::int64_t reference{0};
    std::int64_t lastCall;
};

TEST(RateLimitedTest, AgreesWithTheModelOverRandomSequences)
{
    std::mt19937 random(42);
    auto const between = [&random](std::int64_t least, std::int64_t most)
    { return std::uniform_int_distribution<std::int64_t>(least, most)(random); };
    std::array<int, 5> reasons{};
    SteadyClockDouble clock(0ns);

    for (int sequence = 0; sequence < 100'000; ++sequence)
    {
        std::int64_t now = between(0, 300);
        clock.set(milliseconds(now));
        RateLimited sut;
        Model model(now);
        auto const interval = between(-2, 30);
        auto const tolerance = static_cast<unsigned char>(between(0, 3) == 0 ? between(250, 255) : between(0, 4));
        for (int call = 0; call < 15; ++call)
        {
            now += between(0, 3) == 0 ? between(0, 10'000) : between(0, 40);
            clock.set(milliseconds(now) + std::chrono::nanoseconds(between(0, 999'999)));
            auto const stamp = between(0, 9) == 0 ? between(-5, 5) : now - between(-30, 120);

            auto const expected = model.delay(now, stamp, interval, tolerance);
            ASSERT_EQ(sut.delay(milliseconds(stamp), milliseconds(interval), tolerance), expected == Model::Delayed)
                << "sequence " << sequence << ", call " << call;
            ++reasons.at(expected);
        }
    }

    for (int const count : reasons)
    {
        EXPECT_GT(count, 10'000); // the sequences reach every outcome
    }
}

}

}
