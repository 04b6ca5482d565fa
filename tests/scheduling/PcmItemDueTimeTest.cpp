#include <utils/PcmItem.h>

#include "scheduling/ItemTest.h"
#include "support/LogCapture.h"
#include "support/SteadyClockDouble.h"

#include <gmock/gmock.h>

#include <memory>
#include <optional>

namespace Halden::Tavro::Utils
{

namespace
{

using namespace std::chrono_literals;
using namespace testing;
using namespace TestSupport;

using Log::Severity;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

TEST(PcmItemDueTimeTest, FreshItemIsDueOnePeriodAfterTheEpoch)
{
    PcmItem const sut(doNothing, 100ms);

    EXPECT_EQ(sut.nextDueTime(), at(100ms));
}

TEST(PcmItemDueTimeTest, FreshItemOnAClockThatHasRunForHoursIsDueAtOnce)
{
    SteadyClockDouble const clock(3h);
    PcmItem const sut(doNothing, 100ms);

    EXPECT_TRUE(sut.isDueWithin(0ms));
}

TEST(PcmItemDueTimeTest, FreshItemWaitsWhileTheClockReadsLessThanOnePeriod)
{
    SteadyClockDouble clock(99ms);
    PcmItem const sut(doNothing, 100ms);

    EXPECT_FALSE(sut.isDueWithin(0ms));
    clock.set(100ms + 1ns);
    EXPECT_TRUE(sut.isDueWithin(0ms));
}

TEST(PcmItemDueTimeTest, ItemWhoseDueTimeEqualsNowPlusTheLookAheadIsNotDue)
{
    SteadyClockDouble clock(0ns);
    PcmItem const sut(doNothing, 100ms);

    clock.set(70ms);
    EXPECT_FALSE(sut.isDueWithin(30ms));
    EXPECT_TRUE(sut.isDueWithin(31ms));
    clock.set(70ms + 1ns);
    EXPECT_TRUE(sut.isDueWithin(30ms));
    clock.set(70ms - 1ns);
    EXPECT_FALSE(sut.isDueWithin(30ms));
}

TEST(PcmItemDueTimeTest, LookAheadMayBeNegative)
{
    SteadyClockDouble clock(150ms);
    PcmItem const sut(doNothing, 100ms);

    EXPECT_FALSE(sut.isDueWithin(-50ms));
    EXPECT_TRUE(sut.isDueWithin(-49ms));
}

TEST(PcmItemDueTimeTest, DueTimeCountsFromTheStartOfTheLastExecution)
{
    SteadyClockDouble clock(5s);
    PcmItem sut([&clock] { clock.set(7s); }, 100ms);

    sut.execute();

    EXPECT_EQ(sut.nextDueTime(), at(5s + 100ms));
}

TEST(PcmItemDueTimeTest, LateStartMovesTheScheduleAndMissedPeriodsAreNotMadeUp)
{
    SteadyClockDouble clock(1s);
    PcmItem sut(doNothing, 100ms);
    sut.execute();

    clock.set(1s + 357ms + 1ns);
    sut.execute();

    EXPECT_EQ(sut.nextDueTime(), at(1s + 457ms + 1ns));
    EXPECT_FALSE(sut.isDueWithin(0ms));
}

TEST(PcmItemDueTimeTest, FunctionSeesTheNewDueTimeAlready)
{
    SteadyClockDouble const clock(5s);
    std::optional<steady_clock::time_point> seen;
    std::unique_ptr<PcmItem> sut;
    sut = std::make_unique<PcmItem>([&] { seen = sut->nextDueTime(); }, 100ms);

    sut->execute();

    EXPECT_EQ(seen, at(5s + 100ms));
}

TEST(PcmItemDueTimeTest, ExecutionThatThrowsMovesTheDueTime)
{
    LogCapture log;
    log.expect(isLine(Severity::Error, itemLogger, firstUnknownText));
    SteadyClockDouble const clock(5s);
    PcmItem sut([] { throw 1; }, 100ms);

    sut.execute();

    EXPECT_EQ(sut.nextDueTime(), at(5s + 100ms));
}

TEST(PcmItemDueTimeTest, ForbiddingAloneLogsNothingAndKeepsTheDueTime)
{
    LogCapture const log;
    PcmItem sut(doNothing, 100ms);

    sut.forbidFurtherExecutions();

    EXPECT_EQ(sut.nextDueTime(), at(100ms));
    EXPECT_THAT(log.lines(), IsEmpty());
}

// kept: a refused item would be due again at once
TEST(PcmItemDueTimeTest, RefusedExecutionMovesTheDueTimeBeforeItWarns)
{
    SteadyClockDouble const clock(5s);
    PcmItem sut(doNothing, 100ms);
    std::optional<steady_clock::time_point> seen;
    LogCapture log;
    log.expect(isLine(Severity::Warning, itemLogger, forbiddenText));
    log.onLine([&](LogLine const&) { seen = sut.nextDueTime(); });
    sut.forbidFurtherExecutions();

    sut.execute();

    EXPECT_EQ(seen, at(5s + 100ms));
    EXPECT_EQ(sut.nextDueTime(), at(5s + 100ms));
}

TEST(PcmItemDueTimeTest, DueTimeBeyondTheClockIsTheGreatest)
{
    SteadyClockDouble const clock(1s);
    PcmItem longest(doNothing, 9'223'372'036'854ms);
    PcmItem beyond(doNothing, milliseconds::max());
    PcmItem least(doNothing, milliseconds::min());
    EXPECT_EQ(longest.nextDueTime(), at(9'223'372'036'854ms));
    EXPECT_EQ(beyond.nextDueTime(), at(9'223'372'036'854ms));

    longest.execute();
    beyond.execute();
    least.execute();

    EXPECT_EQ(longest.nextDueTime(), steady_clock::time_point::max());
    EXPECT_EQ(beyond.nextDueTime(), steady_clock::time_point::max());
    EXPECT_EQ(least.nextDueTime(), at(1s - 9'223'372'036'854ms));
}

}

}
