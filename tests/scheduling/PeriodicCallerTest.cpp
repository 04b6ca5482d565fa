#include "scheduling/CallerTest.h"

#include <utils/PeriodicCaller.h>

#include <gmock/gmock.h>

#include <future>
#include <memory>
#include <type_traits>

namespace Halden::Tavro::Utils
{

namespace
{

using namespace std::chrono_literals;
using namespace testing;
using namespace TestSupport;

using std::chrono::microseconds;

using PeriodicCallerTest = CallerTest;

TEST_F(PeriodicCallerTest, IsNeitherPolymorphicNorCopyableNorMovableNorALoggerToOthers)
{
    EXPECT_FALSE(std::is_polymorphic_v<PeriodicCaller>);
    EXPECT_FALSE(std::is_copy_constructible_v<PeriodicCaller>);
    EXPECT_FALSE(std::is_copy_assignable_v<PeriodicCaller>);
    EXPECT_FALSE(std::is_move_constructible_v<PeriodicCaller>);
    EXPECT_FALSE(std::is_move_assignable_v<PeriodicCaller>);
    EXPECT_FALSE((std::is_convertible_v<PeriodicCaller*, Log::Logger*>));
}

TEST_F(PeriodicCallerTest, ConstructionLogsThePeriodAndStartsNoThread)
{
    PeriodicCaller const sut(1500ms, "led", doNothing);

    EXPECT_THAT(log.lines(), ElementsAre(debugLine("Period set to 1500000us")));
    EXPECT_EQ(pthreadCreate.count(), 0U);
}

TEST_F(PeriodicCallerTest, LogsAnyPeriodAsItWasGiven)
{
    PeriodicCaller const negative(-1us, "led", doNothing);
    PeriodicCaller const zero(0us, "led", doNothing);
    PeriodicCaller const least(microseconds::min(), "led", doNothing);
    PeriodicCaller const greatest(microseconds::max(), "led", doNothing);

    EXPECT_THAT(log.lines(), ElementsAre(debugLine("Period set to -1us"), debugLine("Period set to 0us"),
                                         debugLine("Period set to -9223372036854775808us"),
                                         debugLine("Period set to 9223372036854775807us")));
}

TEST_F(PeriodicCallerTest, CallsACopyOfTheCallback)
{
    std::promise<void> called;
    PeriodicCaller::Callback callback = [&](auto const&) { called.set_value(); };
    skippedWaits = 1;
    PeriodicCaller sut(1h, "led", callback);
    callback = nullptr;

    sut.start();

    EXPECT_TRUE(becomesReady(called.get_future()));
}

TEST_F(PeriodicCallerTest, ReleasesTheCallbackWhenDestroyed)
{
    auto const held = std::make_shared<int>();
    {
        PeriodicCaller sut(1h, "led", [held](auto const&) {});
        startAndStop(sut);
        EXPECT_EQ(held.use_count(), 2);
    }

    EXPECT_EQ(held.use_count(), 1);
}

TEST_F(PeriodicCallerTest, LogsStartAndStopInTheirOrder)
{
    PeriodicCaller sut(1h, "led", doNothing);
    log.clear();
    sut.start();
    ASSERT_TRUE(waits.waitForCount(1));

    sut.stop();

    auto const entered = debugLine("-start()");
    auto const working = debugLine("+periodicCallerThread(name = led)");
    auto const left = debugLine("-periodicCallerThread(name = led)");
    EXPECT_THAT(log.lines(), AnyOf(ElementsAre(debugLine("+start()"), entered, working, debugLine("+stop()"), stopping,
                                               left, debugLine("-stop()")),
                                   ElementsAre(debugLine("+start()"), working, entered, debugLine("+stop()"), stopping,
                                               left, debugLine("-stop()"))));
}

TEST_F(PeriodicCallerTest, StopOfACallerNeverStartedLogsTwoLinesOnly)
{
    PeriodicCaller sut(1h, "led", doNothing);
    log.clear();

    sut.stop();

    EXPECT_THAT(log.lines(), ElementsAre(debugLine("+stop()"), debugLine("-stop()")));
}

TEST_F(PeriodicCallerTest, SecondStopLogsTwoLinesOnly)
{
    PeriodicCaller sut(1h, "led", doNothing);
    startAndStop(sut);
    log.clear();

    sut.stop();

    EXPECT_THAT(log.lines(), ElementsAre(debugLine("+stop()"), debugLine("-stop()")));
}

TEST_F(PeriodicCallerTest, DestructionOfARunningCallerStopsItAndHasNoClosingLine)
{
    {
        PeriodicCaller sut(1h, "led", doNothing);
        sut.start();
        ASSERT_TRUE(waits.waitForCount(1));
        log.clear();
    }

    EXPECT_THAT(log.lines(), ElementsAre(debugLine("+destructor"), debugLine("+stop()"), stopping,
                                         debugLine("-periodicCallerThread(name = led)"), debugLine("-stop()")));
}

TEST_F(PeriodicCallerTest, DestructionOfACallerNeverStartedLogsItsStop)
{
    {
        PeriodicCaller const sut(1h, "led", doNothing);
        log.clear();
    }

    EXPECT_THAT(log.lines(), ElementsAre(debugLine("+destructor"), debugLine("+stop()"), debugLine("-stop()")));
}

// kept: quotes without a name in them; what reads the log looks for them
TEST_F(PeriodicCallerTest, EmptyNameKeepsItsQuotes)
{
    PeriodicCaller sut(1h, "", doNothing);

    sut.start();

    EXPECT_THAT([&] { sut.start(); }, throwsAlreadyStarted(""));
    EXPECT_TRUE(log.waitFor(
        isLine(Log::Severity::Debug, "Halden::Tavro::Utils::PeriodicCaller ''", "+periodicCallerThread(name = )")));
}

TEST_F(PeriodicCallerTest, NameIsNeverTakenAsAFormat)
{
    PeriodicCaller sut(1h, "50%s'", doNothing);

    sut.start();

    EXPECT_THAT([&] { sut.start(); }, throwsAlreadyStarted("50%s'"));
    EXPECT_TRUE(log.waitFor(isLine(Log::Severity::Debug, "Halden::Tavro::Utils::PeriodicCaller '50%s''",
                                   "+periodicCallerThread(name = 50%s')")));
}

}

}
