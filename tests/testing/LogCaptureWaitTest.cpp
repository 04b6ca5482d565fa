// How a wait for a line goes on and ends.

#include <utils/testing/LogCapture.h>

#include "support/CallDouble.h"
#include "support/SteadyClockDouble.h"

#include <log/Logger.h>

#include <gtest/gtest.h>

#include <time.h>

#include <chrono>

namespace Halden::Tavro::Utils::Testing
{

namespace
{

using namespace TestSupport;
using namespace std::chrono_literals;
using Log::Severity;

CallDouble<int(timespec const*, timespec*)> nanoSleep{"nanosleep"};

}

extern "C" int nanosleep(timespec const* requested, timespec* remaining)
{
    return nanoSleep(requested, remaining);
}

namespace
{

class LogCaptureWaitTest : public testing::Test
{
protected:
    LogCaptureWaitTest() { nanoSleep.reset(); }

    ~LogCaptureWaitTest() override { nanoSleep.reset(); }

    static void logReady() { Log::tavroDoLog(Severity::Info, "ready", {}); }

    static bool isReady(LogLine const& line) { return line.text == "ready"; }

    LogCapture sut;
};

TEST_F(LogCaptureWaitTest, LineMayComeTwiceBeforeTheWaitIsOver)
{
    int lines = 0;
    sut.onLine([&lines](LogLine const& /*line*/) { ++lines; });
    nanoSleep.replace(
        [](timespec const*, timespec*)
        {
            logReady();
            logReady();
            return 0;
        });

    EXPECT_TRUE(sut.waitFor(isReady, 20s));

    EXPECT_EQ(lines, 2);
}

TEST_F(LogCaptureWaitTest, NobodyIsAskedAboutALineAfterTheWait)
{
    int asked = 0;

    EXPECT_FALSE(sut.waitFor(
        [&asked](LogLine const& line)
        {
            ++asked;
            return isReady(line);
        },
        0ms));
    logReady();

    EXPECT_EQ(asked, 0);
}

TEST_F(LogCaptureWaitTest, LimitHoldsWhateverTheSteadyClockShows)
{
    for (auto const shown : {0h, 1'000'000h})
    {
        SteadyClockDouble const clock(shown);

        EXPECT_FALSE(sut.waitFor(isReady, 1ms));
    }
}

TEST_F(LogCaptureWaitTest, ShortWaitsAreShort)
{
    auto const begin = std::chrono::steady_clock::now();

    for (int i = 0; i < 20; ++i)
    {
        EXPECT_FALSE(sut.waitFor(isReady, 1ms));
    }

    EXPECT_LT(std::chrono::steady_clock::now() - begin, 10s); // generous, but less than a second each
}

}

}
