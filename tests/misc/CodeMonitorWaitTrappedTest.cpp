#include <utils/CodeMonitor.h>

#include "misc/Crossing.h"
#include "support/CallDouble.h"
#include "support/ClockTime.h"
#include "support/WaitFor.h"

#include <gmock/gmock.h>

#include <time.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <ctime>
#include <limits>
#include <optional>
#include <thread>
#include <vector>

namespace Halden::Tavro::Utils
{

namespace
{

TestSupport::CallDouble<int(timespec const*, timespec*)> nanoSleep{"nanosleep"};

}

}

using namespace Halden::Tavro::Utils;

extern "C" int nanosleep(timespec const* requested, timespec* remaining)
{
    return nanoSleep(requested, remaining);
}

namespace Halden::Tavro::Utils
{

namespace
{

using testing::AllOf;
using testing::Each;
using testing::ElementsAre;
using testing::Eq;
using testing::IsEmpty;
using testing::SizeIs;
using namespace TestSupport;
using namespace std::chrono_literals;

class CodeMonitorWaitTrappedTest : public testing::Test
{
protected:
    CodeMonitorWaitTrappedTest() { nanoSleep.reset(); }

    ~CodeMonitorWaitTrappedTest() override { nanoSleep.reset(); }

    /// No sleep takes any time, and each is noted.
    void recordSleeps()
    {
        nanoSleep.replace(
            [this](timespec const* requested, timespec*)
            {
                sleeps.push_back(toDuration(*requested));
                return 0;
            });
    }

    /// For what stands in for a sleep, too.
    bool waitUntilTrapped()
    {
        auto const deadline = std::chrono::steady_clock::now() + 10s;
        while (!sut.trappedAtBarrier() && std::chrono::steady_clock::now() < deadline)
        {
            std::this_thread::yield();
        }
        return sut.trappedAtBarrier();
    }

    CodeMonitor sut{"sut"};
    std::vector<std::chrono::nanoseconds> sleeps;
};

TEST_F(CodeMonitorWaitTrappedTest, ReturnsAtOnceWhenAThreadIsTrapped)
{
    sut.closeBarrier();
    Crossing crossing(sut);
    ASSERT_TRUE(waitUntilTrapped());
    recordSleeps();

    EXPECT_TRUE(sut.waitTrapped(1000ms));
    EXPECT_TRUE(sut.waitTrapped(0ms));

    EXPECT_THAT(sleeps, IsEmpty());
    sut.openBarrier();
    EXPECT_TRUE(crossing.wait());
}

TEST_F(CodeMonitorWaitTrappedTest, NoticesTheCrossingWithTheNextLook)
{
    sut.closeBarrier();
    std::optional<Crossing> crossing;
    nanoSleep.replace(
        [&](timespec const* requested, timespec*)
        {
            sleeps.push_back(toDuration(*requested));
            if (sleeps.size() == 3)
            {
                crossing.emplace(sut);
                EXPECT_TRUE(waitUntilTrapped());
            }
            return 0;
        });

    EXPECT_TRUE(sut.waitTrapped(1000ms));

    EXPECT_THAT(sleeps, ElementsAre(20ms, 20ms, 20ms));
    sut.openBarrier();
    EXPECT_TRUE(crossing->wait());
}

TEST_F(CodeMonitorWaitTrappedTest, SleepsFiftySlicesInVain)
{
    recordSleeps();

    EXPECT_FALSE(sut.waitTrapped(1000ms));

    EXPECT_THAT(sleeps, AllOf(SizeIs(50), Each(Eq(20ms))));
}

TEST_F(CodeMonitorWaitTrappedTest, TruncatesTheSliceToWholeMilliseconds)
{
    recordSleeps();

    sut.waitTrapped(50ms);
    EXPECT_THAT(sleeps, AllOf(SizeIs(50), Each(Eq(1ms))));

    sleeps.clear();
    sut.waitTrapped(149ms);
    EXPECT_THAT(sleeps, AllOf(SizeIs(50), Each(Eq(2ms))));
}

TEST_F(CodeMonitorWaitTrappedTest, SleepsSlicesOfMoreThanASecond)
{
    recordSleeps();

    EXPECT_FALSE(sut.waitTrapped(75500ms));

    EXPECT_THAT(sleeps, AllOf(SizeIs(50), Each(Eq(1510ms))));
}

TEST_F(CodeMonitorWaitTrappedTest, Below50MillisecondsDoesNotSleep)
{
    recordSleeps();

    EXPECT_FALSE(sut.waitTrapped(49ms));
    EXPECT_FALSE(sut.waitTrapped(10ms));
    EXPECT_FALSE(sut.waitTrapped(0ms));
    EXPECT_FALSE(sut.waitTrapped(-1000ms));

    EXPECT_THAT(sleeps, IsEmpty());
}

// kept: the answer is that of the last look, before the last slice
TEST_F(CodeMonitorWaitTrappedTest, DoesNotLookAfterTheLastSlice)
{
    sut.closeBarrier();
    std::optional<Crossing> crossing;
    nanoSleep.replace(
        [&](timespec const* requested, timespec*)
        {
            sleeps.push_back(toDuration(*requested));
            if (sleeps.size() == 50)
            {
                crossing.emplace(sut);
                EXPECT_TRUE(waitUntilTrapped());
            }
            return 0;
        });

    EXPECT_FALSE(sut.waitTrapped(1000ms));

    EXPECT_TRUE(sut.trappedAtBarrier());
    EXPECT_THAT(sleeps, SizeIs(50));
    sut.openBarrier();
    EXPECT_TRUE(crossing->wait());
}

TEST_F(CodeMonitorWaitTrappedTest, ResumesAnInterruptedSliceWithTheRemainingTime)
{
    nanoSleep.replace(
        [this](timespec const* requested, timespec* remaining)
        {
            sleeps.push_back(toDuration(*requested));
            if (sleeps.size() == 1 || sleeps.size() == 2)
            {
                *remaining = {0, sleeps.size() == 1 ? 7'000'000 : 3'000'000};
                errno = EINTR;
                return -1;
            }
            return 0;
        });

    EXPECT_FALSE(sut.waitTrapped(500ms));

    ASSERT_THAT(sleeps, SizeIs(50 + 2));
    EXPECT_EQ(sleeps[0], 10ms);
    EXPECT_EQ(sleeps[1], 7ms);
    EXPECT_EQ(sleeps[2], 3ms);
    EXPECT_THAT(std::vector(sleeps.begin() + 3, sleeps.end()), Each(Eq(10ms)));
}

TEST_F(CodeMonitorWaitTrappedTest, DoesNotResumeASliceThatFailsOtherwise)
{
    nanoSleep.replace(
        [](timespec const*, timespec*)
        {
            errno = EINVAL;
            return -1;
        });

    EXPECT_FALSE(sut.waitTrapped(500ms));

    EXPECT_EQ(nanoSleep.count(), 50U);
}

TEST_F(CodeMonitorWaitTrappedTest, AcceptsTheGreatestTimeOut)
{
    std::vector<timespec> requests; // beyond what nanoseconds can count
    nanoSleep.replace(
        [&requests](timespec const* requested, timespec*)
        {
            requests.push_back(*requested);
            return 0;
        });

    EXPECT_FALSE(sut.waitTrapped(std::chrono::milliseconds::max()));

    ASSERT_THAT(requests, SizeIs(50));
    auto const seconds =
        std::chrono::duration_cast<std::chrono::seconds>(std::chrono::milliseconds::max() / 50).count();
    EXPECT_EQ(requests[0].tv_sec, std::min<std::int64_t>(seconds, std::numeric_limits<std::time_t>::max()));
}

TEST_F(CodeMonitorWaitTrappedTest, LastsAsLongAsItIsAskedToWait)
{
    auto const start = std::chrono::steady_clock::now();

    EXPECT_FALSE(sut.waitTrapped(100ms));

    EXPECT_GE(std::chrono::steady_clock::now() - start, 100ms);
}

}

}
