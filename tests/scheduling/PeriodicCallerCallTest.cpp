#include "scheduling/CallerTest.h"

#include <utils/PeriodicCaller.h>

#include <gmock/gmock.h>

#include <atomic>
#include <future>
#include <thread>

namespace Halden::Tavro::Utils
{

namespace
{

using namespace std::chrono_literals;
using namespace testing;
using namespace TestSupport;

using std::chrono::microseconds;
using std::chrono::nanoseconds;

using PeriodicCallerCallTest = CallerTest;

TEST_F(PeriodicCallerCallTest, CallsOnOneThreadOfItsOwn)
{
    Recorded<std::thread::id> callers;
    PeriodicCaller sut(0us, "led", [&](auto const&) { callers.add(std::this_thread::get_id()); });

    sut.start();

    ASSERT_TRUE(callers.waitForCount(3));
    sut.stop();
    EXPECT_THAT(callers.all(), Each(callers.all().front()));
    EXPECT_NE(callers.all().front(), std::this_thread::get_id());
}

TEST_F(PeriodicCallerCallTest, HoldsItsMutexDuringACall)
{
    std::promise<bool> freeDuringCall;
    skippedWaits = 1;
    PeriodicCaller sut(1h, "led", [&](auto const&) { freeDuringCall.set_value(objectsMutexIsFree()); });

    sut.start();

    auto known = freeDuringCall.get_future();
    ASSERT_TRUE(becomesReady(known));
    EXPECT_FALSE(known.get());
}

TEST_F(PeriodicCallerCallTest, ReleasesItsMutexWhileItWaits)
{
    PeriodicCaller sut(1h, "led", doNothing);

    sut.start();

    ASSERT_TRUE(waits.waitForCount(1));
    EXPECT_TRUE(waitFor([&] { return objectsMutexIsFree(); }));
}

TEST_F(PeriodicCallerCallTest, WaitsForThePeriodOnTheMonotonicClockBeforeEachCall)
{
    std::atomic<int> calls{0};
    skippedWaits = 2;
    PeriodicCaller sut(1h, "led", [&](auto const&) { ++calls; });

    sut.start();

    ASSERT_TRUE(waits.waitForCount(3));
    sut.stop();
    EXPECT_EQ(calls, 2);
    EXPECT_THAT(waits.all(), Each(Field(&Wait::clock, CLOCK_MONOTONIC)));
    EXPECT_THAT(waits.all(), Each(Field(&Wait::left, AllOf(Le(1h), Gt(50min)))));
}

TEST_F(PeriodicCallerCallTest, PausesFromTheEndOfACallAndNeverCatchesUp)
{
    skippedWaits = 2;
    PeriodicCaller sut(1h, "led", [](auto const&) { monotonicLead += 3h; });

    sut.start();

    ASSERT_TRUE(waits.waitForCount(3));
    EXPECT_THAT(waits.all(), Each(Field(&Wait::left, AllOf(Le(1h), Gt(50min)))));
    EXPECT_GE(waits.all()[1].deadline - waits.all()[0].deadline, 4h);
    EXPECT_GE(waits.all()[2].deadline - waits.all()[1].deadline, 4h);
}

TEST_F(PeriodicCallerCallTest, SpuriousWakeUpNeitherCallsNorMovesTheDeadline)
{
    std::promise<void> called;
    std::atomic<int> spurious{3};
    condClockwait.replace(
        [&](auto* condition, auto* mutex, auto clock, auto* deadline)
        {
            waits.add({clock, toDuration(*deadline), {}});
            if (spurious-- > 0)
            {
                return 0;
            }
            return condClockwait.passOn(condition, mutex, clock, deadline);
        });
    PeriodicCaller sut(1h, "led", [&](auto const&) { called.set_value(); });

    sut.start();

    ASSERT_TRUE(waits.waitForCount(4));
    sut.stop();
    EXPECT_FALSE(becomesReady(called.get_future(), 0s));
    EXPECT_THAT(waits.all(), Each(Field(&Wait::deadline, waits.all().front().deadline)));
}

// kept: a caller takes any period, whatever comes of it
TEST_F(PeriodicCallerCallTest, ZeroPeriodCallsBackToBack)
{
    Recorded<microseconds> calls;
    PeriodicCaller sut(0us, "led", [&](auto const& elapsed) { calls.add(elapsed); });

    sut.start();

    EXPECT_TRUE(calls.waitForCount(100));
    sut.stop();
    EXPECT_THAT(waits.all(), AllOf(SizeIs(Ge(100)), Each(Field(&Wait::left, Le(0ns)))));
}

// kept: as above
TEST_F(PeriodicCallerCallTest, NegativePeriodsCallBackToBack)
{
    for (microseconds const period : {microseconds(-1), microseconds::min()})
    {
        Recorded<microseconds> calls;
        PeriodicCaller sut(period, "led", [&](auto const& elapsed) { calls.add(elapsed); });

        sut.start();

        EXPECT_TRUE(calls.waitForCount(100));
        sut.stop();
        EXPECT_THAT(waits.all(), AllOf(SizeIs(Ge(100)), Each(Field(&Wait::left, Le(0ns)))));
    }
}

TEST_F(PeriodicCallerCallTest, GreatestPeriodSleepsUntilStopped)
{
    std::atomic<int> calls{0};
    PeriodicCaller sut(microseconds::max(), "led", [&](auto const&) { ++calls; });
    sut.start();
    ASSERT_TRUE(waits.waitForCount(1));

    sut.stop();

    EXPECT_EQ(calls, 0);
    EXPECT_THAT(waits.all(), Each(Field(&Wait::left, Gt(30 * 365 * 24h))));
}

TEST_F(PeriodicCallerCallTest, TellsTheWallClockTimeFromTheEndOfTheCallBefore)
{
    Recorded<microseconds> calls;
    wallClock = nanoseconds(1000h).count();
    wallClockStep = nanoseconds(1s + 7us).count();
    skippedWaits = 3;
    PeriodicCaller sut(1h, "led",
                       [&](auto const& elapsed)
                       {
                           calls.add(elapsed);
                           wallClock += nanoseconds(300ms).count();
                       });

    sut.start();

    ASSERT_TRUE(calls.waitForCount(3));
    sut.stop();
    EXPECT_THAT(calls.all(), ElementsAre(1000007us, 1000007us, 1000007us));
}

TEST_F(PeriodicCallerCallTest, ElapsedTimeJumpsWithTheWallClockWhileThePauseDoesNot)
{
    Recorded<microseconds> calls;
    wallClock = nanoseconds(1000h).count();
    wallClockStep = nanoseconds(-100h).count();
    skippedWaits = 2;
    PeriodicCaller sut(1h, "led", [&](auto const& elapsed) { calls.add(elapsed); });

    sut.start();

    ASSERT_TRUE(waits.waitForCount(3));
    EXPECT_THAT(calls.all(), ElementsAre(-100h, -100h));
    EXPECT_THAT(waits.all(), Each(Field(&Wait::left, AllOf(Le(1h), Gt(50min)))));
}

TEST_F(PeriodicCallerCallTest, ElapsedTimeIsTruncatedTowardsZero)
{
    Recorded<microseconds> calls;
    wallClock = nanoseconds(1000h).count();
    wallClockStep = 1999;
    skippedWaits = 2;
    PeriodicCaller sut(1h, "led",
                       [&](auto const& elapsed)
                       {
                           calls.add(elapsed);
                           wallClockStep = -1999;
                       });

    sut.start();

    ASSERT_TRUE(calls.waitForCount(2));
    EXPECT_THAT(calls.all(), ElementsAre(1us, -1us));
}

TEST_F(PeriodicCallerCallTest, AfterARestartTheElapsedTimeCountsFromTheNewThread)
{
    Recorded<microseconds> calls;
    wallClock = nanoseconds(1000h).count();
    PeriodicCaller sut(1h, "led", [&](auto const& elapsed) { calls.add(elapsed); });
    startAndStop(sut);
    wallClock += nanoseconds(10h).count();
    wallClockStep = nanoseconds(1s).count();
    skippedWaits = 1;

    sut.start();

    ASSERT_TRUE(calls.waitForCount(1));
    EXPECT_THAT(calls.all(), ElementsAre(1s));
}

TEST_F(PeriodicCallerCallTest, FirstElapsedTimeLeavesOutTheWorkersFirstLine)
{
    Recorded<microseconds> calls;
    wallClock = nanoseconds(1000h).count();
    wallClockStep = nanoseconds(1s).count();
    skippedWaits = 1;
    log.onLine(
        [](LogLine const& line)
        {
            if (line.text == "+periodicCallerThread(name = led)")
            {
                wallClock += nanoseconds(10h).count();
            }
        });
    PeriodicCaller sut(1h, "led", [&](auto const& elapsed) { calls.add(elapsed); });

    sut.start();

    ASSERT_TRUE(calls.waitForCount(1));
    EXPECT_THAT(calls.all(), ElementsAre(1s));
}

}

}
