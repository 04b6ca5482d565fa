#include <utils/TimeText.h>

#include "support/TimeZone.h"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdio>
#include <ctime>
#include <limits>
#include <random>
#include <string>
#include <thread>

namespace Halden::Tavro::Utils
{

namespace
{

using namespace std::chrono_literals;

// Rules spelt out, so that the time zone data of the machine do not matter.
char const* const utc = "UTC0";
char const* const berlin = "CET-1CEST,M3.5.0,M10.5.0/3";
char const* const newYork = "EST5EDT,M3.2.0,M11.1.0";
char const* const kathmandu = "<+0545>-5:45";
char const* const hawaii = "HST10";

auto const marchDay = 1709622489s; // 2024-03-05 07:08:09 UTC
auto const julyDay = 1721012400s;  // 2024-07-15 03:00:00 UTC

std::string textOf(std::chrono::nanoseconds sinceEpoch)
{
    return toUtcString(std::chrono::system_clock::time_point(
        std::chrono::duration_cast<std::chrono::system_clock::duration>(sinceEpoch)));
}

class TimeTextTest : public testing::Test
{
protected:
    TestSupport::TimeZone zone; // each test chooses its own
};

TEST_F(TimeTextTest, WritesDateTimeAndMilliseconds)
{
    zone.set(utc);

    EXPECT_EQ(textOf(marchDay + 45ms), "2024-03-05T07:08:09.045Z");
}

TEST_F(TimeTextTest, FiveMillisecondsPastASecondAreThreeDigits)
{
    zone.set(utc);

    EXPECT_EQ(textOf(marchDay + 5ms), "2024-03-05T07:08:09.005Z");
}

TEST_F(TimeTextTest, WholeSecondEndsInThreeZeros)
{
    zone.set(utc);

    EXPECT_EQ(textOf(marchDay), "2024-03-05T07:08:09.000Z");
}

TEST_F(TimeTextTest, FractionsOfAMillisecondAreCutOff)
{
    zone.set(utc);

    EXPECT_EQ(textOf(marchDay + 999999999ns), "2024-03-05T07:08:09.999Z");
}

// kept: who reads these texts has always got local time
TEST_F(TimeTextTest, TextIsLocalTimeDespiteTheZ)
{
    zone.set(berlin);
    EXPECT_EQ(textOf(marchDay), "2024-03-05T08:08:09.000Z");
    EXPECT_EQ(textOf(julyDay), "2024-07-15T05:00:00.000Z"); // summer time

    zone.set(newYork);
    EXPECT_EQ(textOf(marchDay), "2024-03-05T02:08:09.000Z");
    EXPECT_EQ(textOf(julyDay), "2024-07-14T23:00:00.000Z");

    zone.set(kathmandu);
    EXPECT_EQ(textOf(marchDay), "2024-03-05T12:53:09.000Z");
    EXPECT_EQ(textOf(julyDay), "2024-07-15T08:45:00.000Z");

    zone.set(hawaii);
    EXPECT_EQ(textOf(marchDay), "2024-03-04T21:08:09.000Z");
    EXPECT_EQ(textOf(julyDay), "2024-07-14T17:00:00.000Z");
}

TEST_F(TimeTextTest, FiveMillisecondsPastASecondLookTheSameInEveryZone)
{
    for (char const* const name : {utc, berlin, newYork, kathmandu, hawaii})
    {
        zone.set(name);
        EXPECT_EQ(textOf(marchDay + 5ms).substr(19), ".005Z") << name;
        EXPECT_EQ(textOf(marchDay).substr(19), ".000Z") << name;
    }
}

/// What the C library makes of it.
std::string systemsTextOf(std::chrono::nanoseconds sinceEpoch)
{
    auto const second = static_cast<std::time_t>(std::chrono::duration_cast<std::chrono::seconds>(sinceEpoch).count());
    auto const millisecond = std::chrono::duration_cast<std::chrono::milliseconds>(sinceEpoch).count() % 1000;
    std::array<char, 64> text{};
    std::size_t const length = std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%S", std::localtime(&second));
    static_cast<void>(
        std::snprintf(text.data() + length, text.size() - length, ".%03uZ", static_cast<unsigned>(millisecond)));
    return text.data();
}

TEST_F(TimeTextTest, AgreesWithTheSystemInEveryZone)
{
    using Count = std::chrono::nanoseconds::rep;
    std::mt19937_64 random(20240305);
    std::uniform_int_distribution<Count> anySecond(-2'000'000'000, 2'000'000'000); // also a time_t of 32 bits
    std::uniform_int_distribution<Count> anyTime(std::numeric_limits<Count>::min(), std::numeric_limits<Count>::max());
    for (char const* const name : {utc, berlin, newYork, kathmandu, hawaii})
    {
        zone.set(name);
        tzset();
        for (int i = 0; i < 2000; ++i)
        {
            auto const second = std::chrono::seconds(anySecond(random));
            ASSERT_EQ(textOf(second), systemsTextOf(second)) << name;
            auto const time = std::chrono::nanoseconds(anyTime(random));
            ASSERT_EQ(textOf(time), systemsTextOf(time)) << name << ", " << time.count();
        }
    }
}

TEST_F(TimeTextTest, AgreesWithTheSystemAtTheBordersOfWhatTheClockAndATimeOf32BitsHold)
{
    zone.set(berlin);
    tzset();
    std::chrono::nanoseconds const last32Bits = 2'147'483'647s;

    for (auto const border : {std::chrono::nanoseconds::min() + 1s, -last32Bits, 0ns, 951'782'400'000'000'000ns,
                              last32Bits, std::chrono::nanoseconds::max() - 1s})
    {
        for (auto const distance : {-1s + 0ns, -1ms + 0ns, -1ns, 0ns, 1ns, 1ms - 1ns, 1ms + 0ns, 1s - 1ns, 1s + 0ns})
        {
            EXPECT_EQ(textOf(border + distance), systemsTextOf(border + distance)) << (border + distance).count();
        }
    }
}

TEST_F(TimeTextTest, WholeSecondBefore1970IsExact)
{
    zone.set(utc);
    EXPECT_EQ(textOf(-1s), "1969-12-31T23:59:59.000Z");
    EXPECT_EQ(textOf(-86400s * 365), "1969-01-01T00:00:00.000Z");

    zone.set(berlin);
    EXPECT_EQ(textOf(-3601s), "1969-12-31T23:59:59.000Z");

    zone.set(newYork);
    EXPECT_EQ(textOf(0s), "1969-12-31T19:00:00.000Z");
}

// kept: no clock in use stands before 1970, and no text changes
TEST_F(TimeTextTest, FractionBefore1970IsTruncatedTowards1970AndPrintsAsAnUnsignedNumber)
{
    zone.set(utc);

    EXPECT_EQ(textOf(-1ms), "1970-01-01T00:00:00.4294967295Z");
    EXPECT_EQ(textOf(-999ms), "1970-01-01T00:00:00.4294966297Z");
    EXPECT_EQ(textOf(-1500ms), "1969-12-31T23:59:59.4294966796Z");
}

TEST_F(TimeTextTest, LessThanAMillisecondBefore1970Is1970)
{
    zone.set(utc);

    EXPECT_EQ(textOf(-999999ns), "1970-01-01T00:00:00.000Z");
}

TEST_F(TimeTextTest, CallsFromSeveralThreadsDoNotDisturbEachOther)
{
    zone.set(utc);
    std::atomic<int> differences{0};
    auto const repeat = [&differences](std::chrono::seconds second, std::string const& expected)
    {
        for (int i = 0; i < 5000; ++i)
        {
            differences += textOf(second) == expected ? 0 : 1;
        }
    };

    std::thread march(repeat, marchDay, "2024-03-05T07:08:09.000Z");
    std::thread july(repeat, julyDay, "2024-07-15T03:00:00.000Z");
    march.join();
    july.join();

    EXPECT_EQ(differences, 0);
}

}

}
