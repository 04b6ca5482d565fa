#include "scheduling/HeldCall.h"
#include "scheduling/ManagerTest.h"
#include "scheduling/SchedulerSleep.h"
#include "support/WaitFor.h"

#include <gmock/gmock.h>

#include <atomic>
#include <future>
#include <memory>

namespace Halden::Tavro::Utils
{

namespace
{

using namespace std::chrono_literals;
using namespace testing;
using namespace TestSupport;

using Log::Severity;
using std::chrono::milliseconds;

using PeriodicCallerManagerRemovalTest = ManagerTest;
using PeriodicCallerManagerRemovalStrategyTest = ManagerStrategyTest;

INSTANTIATE_TEST_SUITE_P(Both, PeriodicCallerManagerRemovalStrategyTest, bothStrategies(), nameOfStrategy);

// kept: "lowered" to a later time; what reads the log looks for it
TEST_F(PeriodicCallerManagerRemovalTest, RemoveOfTheEarliestItemLowersTheNextDueTimeToALaterOneWithoutWakingUp)
{
    auto sut = makeAsleep();
    Token later = addAsleep(
        *sut, [] {}, thirtyYears);
    Token earlier = addAsleep(
        *sut, [] {}, sixYears);
    SchedulerSleep::await();
    std::size_t const requestsBefore = SchedulerSleep::requests();
    log.clear();

    earlier.reset();
    later.reset();

    EXPECT_THAT(log.linesOf(logger),
                ElementsAre(trace("+remove"), trace("~remove: removed one, now has 1 items"),
                            trace("Scheduler next due time (200000000000ms) lowered to (1000000000000ms)"),
                            trace("+remove"), trace("~remove: removed one, now has 0 items"),
                            trace("Scheduler next due time (1000000000000ms) lowered to (9223372036854ms)")));
    EXPECT_EQ(SchedulerSleep::requests(), requestsBefore);
}

TEST_F(PeriodicCallerManagerRemovalTest, RemoveOfAnUnknownItemWarnsAndLeavesTheOthers)
{
    log.expect(line(Severity::Warning, "-remove: item to be removed not in the list!"));
    auto sut = makeAsleep();
    Token const token = sut->add([] {}, sixYears);
    SchedulerSleep::await();
    log.clear();

    sut->remove(std::make_shared<PcmItem>([] {}, sixYears));
    sut->remove(nullptr);

    EXPECT_THAT(log.linesOf(logger),
                ElementsAre(trace("+remove"), line(Severity::Warning, "-remove: item to be removed not in the list!"),
                            trace("+remove"), line(Severity::Warning, "-remove: item to be removed not in the list!")));
    EXPECT_EQ(nextPcmDueTime(*sut), afterBoot(sixYears));
}

// kept: an item is destroyed on the scheduler thread, never beside its function
TEST_F(PeriodicCallerManagerRemovalTest, RemovedItemIsKeptUntilTheNextWakeUp)
{
    HeldCall blocker;
    std::atomic<int> calls{0};
    auto held = std::make_shared<int>(0);
    std::weak_ptr<int> const watched = held;
    auto sut = makeAsleep();
    Token const blocking = sut->add([&] { blocker(); }, longPeriod);
    EXPECT_TRUE(blocker.awaitEntered());
    Token token = sut->add([&calls, held = std::move(held)] { ++calls; }, longPeriod);
    blocker.release();
    EXPECT_TRUE(hasBecome(calls, 1));
    SchedulerSleep::await();

    token.reset();
    bool const keptAsleep = !watched.expired();
    Token const waking = sut->add([] {}, sixYears);
    SchedulerSleep::await();

    EXPECT_TRUE(keptAsleep);
    EXPECT_TRUE(watched.expired());
}

TEST_P(PeriodicCallerManagerRemovalStrategyTest, TokenWaitsForItsRunningFunctionWhichIsNeverCalledAgain)
{
    HeldCall held;
    std::atomic<bool> finished{false};
    std::atomic<int> others{0};
    auto sut = makeAsleep(GetParam());
    Token token = sut->add(
        [&]
        {
            held();
            finished = true;
        },
        1ms);
    EXPECT_TRUE(held.awaitEntered());

    auto finishedFirst = std::async(std::launch::async,
                                    [&]
                                    {
                                        token.reset();
                                        return finished.load();
                                    });
    EXPECT_TRUE(log.waitFor(trace("~remove: removed one, now has 0 items")));
    EXPECT_FALSE(becomesReady(finishedFirst, 50ms));
    held.release();

    EXPECT_TRUE(finishedFirst.get());
    Token other = addAsleep(
        *sut, [&others] { ++others; }, 100ms);
    EXPECT_TRUE(hasBecome(others, 3));
    EXPECT_EQ(held.count(), 1);
    end(other);
}

TEST_P(PeriodicCallerManagerRemovalStrategyTest, TokenMayBeDestroyedInsideItsOwnFunctionWhichRunsOn)
{
    std::promise<Token> handed;
    std::promise<void> ranOn;
    std::atomic<int> calls{0};
    std::atomic<int> others{0};
    auto sut = makeAsleep(GetParam());

    handed.set_value(sut->add(
        [&]
        {
            ++calls;
            handed.get_future().get().reset();
            ranOn.set_value();
        },
        1ms));

    EXPECT_TRUE(becomesReady(ranOn.get_future()));
    EXPECT_EQ(log.count(trace("~remove: removed one, now has 0 items")), 1);
    Token other = addAsleep(
        *sut, [&others] { ++others; }, 100ms);
    EXPECT_TRUE(hasBecome(others, 3));
    EXPECT_EQ(calls, 1);
    end(other);
}

TEST_F(PeriodicCallerManagerRemovalTest, ItemRemovedByAnEarlierOneOfItsBatchIsRefused)
{
    log.expect(forbidden);
    HeldCall blocker;
    std::atomic<int> callsOfA{0};
    std::atomic<int> callsOfB{0};
    Token tokenB;
    auto sut = makeAsleep();
    Token const blocking = sut->add([&] { blocker(); }, longPeriod);
    EXPECT_TRUE(blocker.awaitEntered());

    milliseconds const now = sinceBoot();
    tokenB = sut->add([&callsOfB] { ++callsOfB; }, now - 10ms);
    Token const tokenA = sut->add(
        [&]
        {
            tokenB.reset();
            ++callsOfA;
        },
        now - 50ms);
    blocker.release();

    EXPECT_TRUE(hasBecome(callsOfA, 1));
    EXPECT_TRUE(log.waitFor(forbidden));
    SchedulerSleep::await();
    EXPECT_EQ(log.count(forbidden), 1);
    EXPECT_EQ(callsOfB, 0);
}

}

}
