#include "scheduling/HeldCall.h"
#include "scheduling/HeldWhenCopied.h"
#include "scheduling/ManagerTest.h"
#include "scheduling/SchedulerSleep.h"
#include "support/WaitFor.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <future>
#include <vector>

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

using PeriodicCallerManagerDueTimeTest = ManagerTest;

std::vector<milliseconds> periodsDueUntil(PeriodicCallerManager& manager, steady_clock::time_point until)
{
    std::vector<milliseconds> periods;
    for (auto const& item : dueUntil(manager, until))
    {
        periods.push_back(item->period());
    }
    return periods;
}

TEST_F(PeriodicCallerManagerDueTimeTest, NextDueTimeIsTheEarliestOrTheGreatest)
{
    auto sut = makeAsleep();
    EXPECT_EQ(nextPcmDueTime(*sut), steady_clock::time_point::max());

    Token const later = addAsleep(
        *sut, [] {}, thirtyYears);
    Token const earlier = addAsleep(
        *sut, [] {}, sixYears);
    Token const between = addAsleep(
        *sut, [] {}, sixYears + 1ms);

    EXPECT_EQ(nextPcmDueTime(*sut), afterBoot(sixYears));
    SchedulerSleep::await();
}

TEST_F(PeriodicCallerManagerDueTimeTest, DueUntilIncludesExactlyThatTime)
{
    auto sut = makeAsleep();
    Token const token = sut->add([] {}, sixYears);
    SchedulerSleep::await();

    EXPECT_THAT(periodsDueUntil(*sut, afterBoot(sixYears - 1ns)), IsEmpty());
    EXPECT_THAT(periodsDueUntil(*sut, afterBoot(sixYears)), ElementsAre(sixYears));
    EXPECT_THAT(periodsDueUntil(*sut, afterBoot(sixYears + 1ns)), ElementsAre(sixYears));
}

TEST_F(PeriodicCallerManagerDueTimeTest, DueUntilSortsTheMostOverdueFirstAndLogsTheirNumber)
{
    auto sut = makeAsleep();
    Token const third = addAsleep(
        *sut, [] {}, sixYears + 1ms);
    Token const first = addAsleep(
        *sut, [] {}, threeYears);
    Token const notDue = addAsleep(
        *sut, [] {}, thirtyYears);
    Token const second = addAsleep(
        *sut, [] {}, sixYears);
    SchedulerSleep::await();

    EXPECT_THAT(periodsDueUntil(*sut, afterBoot(sixYears + 1ms)), ElementsAre(threeYears, sixYears, sixYears + 1ms));
    EXPECT_EQ(log.count(trace("dueInPeriod: (3) items")), 1);
}

TEST_F(PeriodicCallerManagerDueTimeTest, DueUntilHoldsEachItemOfEqualDueTimeOnce)
{
    auto sut = makeAsleep();
    std::vector<Token> tokens;
    for (int i = 0; i < 20; ++i)
    {
        tokens.push_back(addAsleep(
            *sut, [] {}, sixYears));
    }
    Token const last = addAsleep(
        *sut, [] {}, threeYears); // so that the order has to be made
    SchedulerSleep::await();

    auto due = dueUntil(*sut, afterBoot(sixYears));
    EXPECT_EQ(due.front()->period(), threeYears);
    std::sort(due.begin(), due.end());

    EXPECT_EQ(due.size(), 21);
    EXPECT_EQ(std::adjacent_find(due.begin(), due.end()), due.end());
}

TEST_F(PeriodicCallerManagerDueTimeTest, DueUntilWaitsForAChangeOfTheListInProgress)
{
    HeldCall change;
    auto sut = makeAsleep();
    auto adding = std::async(std::launch::async, [&] { return sut->add(HeldWhenCopied(change), sixYears); });
    ASSERT_TRUE(change.awaitEntered());

    auto due =
        std::async(std::launch::async, [&sut] { return dueUntil(*sut, steady_clock::time_point::max()).size(); });
    EXPECT_FALSE(becomesReady(due, 100ms));
    change.release();

    EXPECT_EQ(due.get(), 1U);
    Token const added = adding.get();
    SchedulerSleep::await();
}

TEST_F(PeriodicCallerManagerDueTimeTest, UpdateWithoutChangeLogsNothingAndWakesNobody)
{
    auto sut = makeAsleep();
    Token const token = sut->add([] {}, sixYears);
    SchedulerSleep::await();
    std::size_t const requestsBefore = SchedulerSleep::requests();
    log.clear();

    updateSchedulerNextDueTime(*sut);

    EXPECT_THAT(log.lines(), IsEmpty());
    EXPECT_EQ(SchedulerSleep::requests(), requestsBefore);
}

}

}
