// What only the manager with a time of its own does; the rest is in ManagerContractTest.cpp.

#include "scheduling/HeldCall.h"
#include "support/ClockTime.h"
#include "support/WaitFor.h"

#include <utils/testing/LogCaptureGmock.h>
#include <utils/testing/ManualTimeManager.h>

#include <gmock/gmock.h>

#include <time.h>

#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

namespace Halden::Tavro::Utils::Testing
{

namespace
{

using namespace TestSupport;
using namespace std::chrono_literals;
using namespace testing;
using std::chrono::milliseconds;
using std::chrono::steady_clock;
using Token = std::unique_ptr<PeriodicCallerManagerTokenIfc>;

auto throwsLogicError(char const* text)
{
    return ThrowsMessage<std::logic_error>(StrEq(text));
}

class ManualTimeManagerTest : public Test
{
protected:
    using Call = std::pair<std::string, milliseconds>;

    /// A function that notes when it is called, from the start of the test, and then takes its time.
    std::function<void()> noting(std::string const& name, milliseconds runTime = 0ms)
    {
        return [this, name, runTime]
        {
            calls.emplace_back(name, sinceBegin());
            if (runTime > 0ms)
            {
                sut->spend(runTime);
            }
        };
    }

    milliseconds sinceBegin() const { return std::chrono::duration_cast<milliseconds>(sut->now() - begin); }

    StrictLogCapture log;
    std::shared_ptr<ManualTimeManager> sut = std::make_shared<ManualTimeManager>();
    steady_clock::time_point const begin = sut->now();
    std::vector<Call> calls;
};

TEST_F(ManualTimeManagerTest, TimeStandsStillUntilItIsMoved)
{
    auto const token = sut->add(noting("a"), 1ms);

    EXPECT_THAT(calls, IsEmpty());
    EXPECT_EQ(sinceBegin(), 0ms);
    sut->advance(1500us);
    EXPECT_EQ(sut->now() - begin, 1500us);
}

TEST_F(ManualTimeManagerTest, CallsOnTheWayWhatFallsDueInOrderTheEndIncluded)
{
    auto const hundred = sut->add(noting("100"), 100ms);
    auto const two = sut->add(noting("250"), 250ms);

    sut->advance(500ms);

    EXPECT_THAT(calls, ElementsAre(Call("100", 0ms), Call("250", 0ms), Call("100", 100ms), Call("100", 200ms),
                                   Call("250", 250ms), Call("100", 300ms), Call("100", 400ms), Call("100", 500ms),
                                   Call("250", 500ms)));
    EXPECT_EQ(sinceBegin(), 500ms);
}

TEST_F(ManualTimeManagerTest, CallsOnTheThreadThatAdvances)
{
    std::thread::id calledOn;
    auto const token = sut->add([&calledOn] { calledOn = std::this_thread::get_id(); }, 1ms);

    sut->advance(0ms);

    EXPECT_EQ(calledOn, std::this_thread::get_id());
}

TEST_F(ManualTimeManagerTest, AdvanceByZeroCallsWhatIsFreshAndNothingTwice)
{
    auto const token = sut->add(noting("a"), 1ms);

    sut->advance(0ms);
    sut->advance(0ms);

    EXPECT_THAT(calls, ElementsAre(Call("a", 0ms)));
}

TEST_F(ManualTimeManagerTest, AdvancesInSmallStepsAsInALargeOne)
{
    auto const token = sut->add(noting("a"), 10ms);

    for (int i = 0; i < 200; ++i)
    {
        sut->advance(100us);
    }

    EXPECT_THAT(calls, ElementsAre(Call("a", 0ms), Call("a", 10ms), Call("a", 20ms)));
}

TEST_F(ManualTimeManagerTest, FreshFunctionWaitsUntilTheMachineHasBeenUpForItsPeriod)
{
    sut = std::make_shared<ManualTimeManager>("", 1s);
    auto const token = sut->add([this] { calls.emplace_back("up for", sut->now().time_since_epoch() / 1ms); }, 3s);

    sut->advance(1999ms);
    EXPECT_THAT(calls, IsEmpty());
    sut->advance(2001ms);

    EXPECT_THAT(calls, ElementsAre(Call("up for", 3s)));
}

TEST_F(ManualTimeManagerTest, FunctionThatTakesLongerThanItsPeriodIsCalledBackToBack)
{
    auto const token = sut->add(noting("slow", 25ms), 10ms);

    sut->advance(60ms);

    EXPECT_THAT(calls, ElementsAre(Call("slow", 0ms), Call("slow", 25ms), Call("slow", 50ms)));
}

TEST_F(ManualTimeManagerTest, TimeSpentDelaysTheOthersWhosePeriodsThenCountFromTheLateStart)
{
    auto const quick = sut->add(noting("quick"), 10ms);
    auto const slow = sut->add(noting("slow", 13ms), 1s);

    sut->advance(40ms);

    EXPECT_THAT(calls, ElementsAre(Call("quick", 0ms), Call("slow", 0ms), Call("quick", 13ms), Call("quick", 23ms),
                                   Call("quick", 33ms)));
}

TEST_F(ManualTimeManagerTest, BatchIsFinishedBeyondTheEndAndTakesTheTimeWithIt)
{
    auto const quick = sut->add(noting("quick"), 10ms);
    auto const slow = sut->add(noting("slow", 30ms), 1s);
    auto const behind = sut->add(noting("behind"), 2s);

    sut->advance(15ms);

    EXPECT_THAT(calls, ElementsAre(Call("quick", 0ms), Call("slow", 0ms), Call("behind", 30ms)));
    EXPECT_EQ(sinceBegin(), 30ms);
}

TEST_F(ManualTimeManagerTest, WhatFallsDueBeforeTheTimeThatABatchHasTakenWaitsForTheNextAdvance)
{
    auto const quick = sut->add(noting("quick"), 10ms);
    auto const slow = sut->add(noting("slow", 30ms), 1s);
    sut->advance(15ms);
    calls.clear();

    sut->advance(10ms);

    EXPECT_THAT(calls, ElementsAre(Call("quick", 30ms), Call("quick", 40ms)));
}

TEST_F(ManualTimeManagerTest, AdvanceBackwardsIsRefused)
{
    auto const token = sut->add(noting("a"), 1ms);

    EXPECT_THAT([&] { sut->advance(-5ms); }, ThrowsMessage<std::invalid_argument>(StrEq(
                                                 "advance() was given -5000000 ns, but time goes forwards only")));

    EXPECT_EQ(sinceBegin(), 0ms);
    EXPECT_THAT(calls, IsEmpty());
}

TEST_F(ManualTimeManagerTest, NegativeUptimeIsRefused)
{
    EXPECT_THAT([] { ManualTimeManager("", -1ms); },
                ThrowsMessage<std::invalid_argument>(
                    StrEq("ManualTimeManager() was given -1000000 ns, but time goes forwards only")));
}

TEST_F(ManualTimeManagerTest, SpendingBackwardsIsRefused)
{
    bool isRefused = false;
    auto const token = sut->add(
        [&]
        {
            EXPECT_THAT([&] { sut->spend(-1ns); }, ThrowsMessage<std::invalid_argument>(
                                                       StrEq("spend() was given -1 ns, but time goes forwards only")));
            isRefused = true;
        },
        1s);

    sut->advance(0ms);

    EXPECT_TRUE(isRefused);
    EXPECT_EQ(sinceBegin(), 0ms);
}

TEST_F(ManualTimeManagerTest, AdvanceInsideAFunctionIsRefused)
{
    bool isRefused = false;
    auto const token = sut->add(
        [&]
        {
            EXPECT_THAT([&] { sut->advance(1ms); },
                        throwsLogicError("advance() was called from a periodic function, which has spend() for this"));
            isRefused = true;
        },
        1s);

    sut->advance(0ms);

    EXPECT_TRUE(isRefused);
    sut->advance(1ms); // and is possible again
    EXPECT_EQ(sinceBegin(), 1ms);
}

TEST_F(ManualTimeManagerTest, AdvanceBesideAnotherThreadIsRefusedAndSoIsSpending)
{
    HeldCall held;
    auto const token = sut->add([&held] { held(); }, 1s);
    auto const advancing = std::async(std::launch::async, [this] { sut->advance(0ms); });
    EXPECT_TRUE(held.awaitEntered());

    EXPECT_THAT([&] { sut->advance(1ms); }, throwsLogicError("advance() was called while another thread is inside"));
    EXPECT_THAT(
        [&] { sut->spend(1ms); },
        throwsLogicError("spend() was called from outside a periodic function, where advance() lets time pass"));
    held.release();
}

TEST_F(ManualTimeManagerTest, SpendingOutsideAFunctionIsRefused)
{
    EXPECT_THAT(
        [&] { sut->spend(1ms); },
        throwsLogicError("spend() was called from outside a periodic function, where advance() lets time pass"));
}

TEST_F(ManualTimeManagerTest, FunctionThatIsAlwaysDueAndTakesNoTimeIsRefusedByAdvance)
{
    auto const token = sut->add(noting("always"), -1s);

    EXPECT_THAT(
        [&] { sut->advance(1ms); },
        throwsLogicError("A function with a negative period is always due: unless it spends time, there is no end"));

    EXPECT_THAT(calls, ElementsAre(Call("always", 0ms)));
}

TEST_F(ManualTimeManagerTest, FunctionThatIsAlwaysDueIsCalledBackToBackWhereItTakesTime)
{
    auto const token = sut->add(noting("always", 2ms), -1s);

    sut->advance(5ms);

    EXPECT_THAT(calls, ElementsAre(Call("always", 0ms), Call("always", 2ms), Call("always", 4ms)));
}

TEST_F(ManualTimeManagerTest, FunctionThatThrowsHasSpentItsTime)
{
    log.expect(isLine(Log::Severity::Error, "Halden::Tavro::Utils::PcmItem", HasSubstr("no answer")));
    auto const token = sut->add(
        [this]
        {
            sut->spend(5ms);
            throw std::runtime_error("no answer");
        },
        1s);

    sut->advance(1ms);

    EXPECT_EQ(sinceBegin(), 5ms);
}

TEST_F(ManualTimeManagerTest, TokenDestroyedByAnotherThreadWaitsForItsFunction)
{
    HeldCall held;
    Token token = sut->add([&held] { held(); }, 1ms);
    auto const advancing = std::async(std::launch::async, [this] { sut->advance(0ms); });
    EXPECT_TRUE(held.awaitEntered());

    auto const destroyed = std::async(std::launch::async, [&token] { token.reset(); });
    EXPECT_TRUE(log.waitFor(isLine(Log::Severity::Trace, "Halden::Tavro::Utils::PeriodicCallerManager()",
                                   std::string("~remove: removed one, now has 0 items"))));
    EXPECT_FALSE(becomesReady(destroyed, 20ms));
    held.release();

    EXPECT_TRUE(becomesReady(destroyed, 20s));
    ASSERT_TRUE(becomesReady(advancing, 20s));
    sut->advance(1s);
    EXPECT_EQ(held.count(), 1);
}

TEST_F(ManualTimeManagerTest, FunctionsComeAndGoOnOtherThreadsWhileTimePasses)
{
    auto const coming = std::async(std::launch::async,
                                   [this]
                                   {
                                       for (int i = 0; i < 200; ++i)
                                       {
                                           std::ignore = sut->add([] {}, 1ms);
                                       }
                                   });
    log.expect(
        isLine(Log::Severity::Warning, "Halden::Tavro::Utils::PcmItem",
               std::string("Execution of PCM item is forbidden"))); // of one that goes in the middle of its batch

    while (!becomesReady(coming, 0s))
    {
        sut->advance(1ms);
    }

    EXPECT_GT(log.count(isLine(Log::Severity::Trace, "Halden::Tavro::Utils::PeriodicCallerManager()",
                               std::string("~remove: removed one, now has 0 items"))),
              0);
}

TEST_F(ManualTimeManagerTest, EmptyManagerLetsAllTimePassAtOnce)
{
    sut->advance(std::chrono::nanoseconds::max());

    EXPECT_EQ(sut->now(), steady_clock::time_point::max());
}

TEST_F(ManualTimeManagerTest, LongestPeriodEndsWithTheClock)
{
    for (double const seconds : {1e10, 1e300})
    {
        calls.clear();
        sut = std::make_shared<ManualTimeManager>();
        auto const token = sut->add(noting("at last"), std::chrono::duration<double>(seconds));

        sut->advance(std::chrono::hours(24 * 365 * 250));
        EXPECT_THAT(calls, IsEmpty()) << seconds;
        sut->advance(std::chrono::nanoseconds::max());

        EXPECT_EQ(calls.size(), 1) << seconds;
    }
}

TEST_F(ManualTimeManagerTest, LongestNegativePeriodIsAlwaysDue)
{
    auto const token = sut->add(noting("always", 1ms), std::chrono::duration<double>(-1e300));

    sut->advance(1ms);

    EXPECT_THAT(calls, ElementsAre(Call("always", 0ms), Call("always", 1ms)));
}

TEST_F(ManualTimeManagerTest, MustBeOwnedByASharedPointer)
{
    ManualTimeManager unowned;

    EXPECT_THROW(std::ignore = unowned.add([] {}, 1s), std::bad_weak_ptr);
}

TEST_F(ManualTimeManagerTest, NameIsPartOfTheLoggersName)
{
    sut = std::make_shared<ManualTimeManager>("sensors");

    std::ignore = sut->add([] {}, 1s);

    EXPECT_EQ(log.linesOf("Halden::Tavro::Utils::PeriodicCallerManager(sensors)").size(), 4);
}

/// A second of this thread's processor, however busy the machine is; where the build itself makes things slow, that
/// does not count.
TEST_F(ManualTimeManagerTest, HourOfTenFunctionsOfTenMillisecondsTakesLessThanASecond)
{
    constexpr int callsAnHour = 360'000;
    Log::LoggerProxy::instance().setThreshold(Log::Severity::Info);
    std::vector<int> counts(10);
    std::vector<Token> tokens;
    tokens.reserve(counts.size());
    for (int& count : counts)
    {
        tokens.push_back(sut->add([&count] { ++count; }, 10ms));
    }
    auto const before = timeOf(CLOCK_THREAD_CPUTIME_ID);

    sut->advance(1h);

    auto const used = timeOf(CLOCK_THREAD_CPUTIME_ID) - before;
    EXPECT_THAT(counts, Each(callsAnHour + 1));
    RecordProperty("milliseconds", static_cast<int>(used / 1ms));
    EXPECT_LT(used, 1s * TIME_FACTOR);
}

}

}
