#include "scheduling/HeldCall.h"
#include "scheduling/ManagerTest.h"
#include "scheduling/SchedulerSleep.h"
#include "support/WaitFor.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <string>
#include <thread>
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

using PeriodicCallerManagerPassTest = ManagerTest;
using PeriodicCallerManagerPassStrategyTest = ManagerStrategyTest;

INSTANTIATE_TEST_SUITE_P(Both, PeriodicCallerManagerPassStrategyTest, bothStrategies(), nameOfStrategy);

TEST_P(PeriodicCallerManagerPassStrategyTest, FreshItemRunsInTheNextPass)
{
    std::atomic<int> calls{0};
    auto sut = makeAsleep(GetParam());
    log.clear();

    Token const token = sut->add([&calls] { ++calls; }, longPeriod);

    EXPECT_TRUE(hasBecome(calls, 1));
    SchedulerSleep::await();
    EXPECT_EQ(calls, 1);
    auto const lines = log.linesOf(logger);
    auto const pass = std::find_if(lines.begin(), lines.end(),
                                   [](auto const& logged) { return logged.text.rfind("dueInPeriod", 0) == 0; });
    ASSERT_NE(pass, lines.end());
    EXPECT_EQ(pass->text, "dueInPeriod: (1) items");
}

TEST_P(PeriodicCallerManagerPassStrategyTest, FreshItemRunsAtOnceAlsoBesideOneOfAShorterPeriod)
{
    std::atomic<int> shortCalls{0};
    std::atomic<int> longCalls{0};
    auto sut = makeAsleep(GetParam());
    Token const shorter = sut->add([&shortCalls] { ++shortCalls; }, longPeriod / 2);
    EXPECT_TRUE(hasBecome(shortCalls, 1));
    SchedulerSleep::await();
    log.clear();

    Token const longer = sut->add([&longCalls] { ++longCalls; }, longPeriod);

    EXPECT_TRUE(hasBecome(longCalls, 1));
    EXPECT_EQ(shortCalls, 1);
    EXPECT_EQ(log.count(trace("notify scheduler to update the wait_until time")), 0);
    SchedulerSleep::await();
}

TEST_F(PeriodicCallerManagerPassTest, BatchRunsTheMostOverdueFirst)
{
    HeldCall blocker;
    std::vector<std::string> order; // on the scheduler thread, then read after its pass
    std::atomic<int> calls{0};
    auto sut = makeAsleep();
    Token const blocking = sut->add([&] { blocker(); }, longPeriod);
    EXPECT_TRUE(blocker.awaitEntered());
    log.clear();

    auto const record = [&](char const* name)
    {
        return [&order, &calls, name]
        {
            order.emplace_back(name);
            ++calls;
        };
    };
    milliseconds const now = sinceBoot();
    Token const younger = sut->add(record("due 10 ms ago"), now - 10ms);
    Token const older = sut->add(record("due 50 ms ago"), now - 50ms);
    blocker.release();

    EXPECT_TRUE(hasBecome(calls, 2));
    EXPECT_THAT(order, ElementsAre("due 50 ms ago", "due 10 ms ago"));
    EXPECT_EQ(log.count(trace("dueInPeriod: (2) items")), 1);
    SchedulerSleep::await();
}

TEST_F(PeriodicCallerManagerPassTest, PassTextTellsDurationAndNextDueTime)
{
    std::atomic<std::int64_t> calledAt{0};
    std::atomic<std::int64_t> loggedAt{0};
    milliseconds const period = longPeriod;
    auto sut = makeAsleep();
    log.onLine(
        [&](LogLine const& logged)
        {
            if (logged.text.rfind("Executing", 0) == 0)
            {
                loggedAt = sinceBoot().count();
            }
        });
    auto const addedAt = sinceBoot().count();

    Token const token = sut->add(
        [&]
        {
            calledAt = sinceBoot().count();
            std::this_thread::sleep_for(30ms); // what the text tells
        },
        period);
    ASSERT_TRUE(waitFor([&] { return loggedAt > 0; }));
    SchedulerSleep::await();

    auto const lines = log.linesOf(logger);
    auto const found = std::find_if(lines.begin(), lines.end(),
                                    [](auto const& logged) { return logged.text.rfind("Executing", 0) == 0; });
    ASSERT_NE(found, lines.end());
    EXPECT_EQ(found->severity, Severity::Trace);
    long long took = 0;
    long long next = 0;
    long long left = 0;
    ASSERT_EQ(std::sscanf(found->text.c_str(),
                          "Executing (1) took (%lld)ms. Now waiting until (%lld)ms which means (%lld)", &took, &next,
                          &left),
              3);
    EXPECT_EQ(found->text, "Executing (1) took (" + std::to_string(took) + ")ms. Now waiting until (" +
                               std::to_string(next) + ")ms which means (" + std::to_string(left) + ")ms from now");
    EXPECT_THAT(took, AllOf(Ge(30), Le(loggedAt.load() - addedAt)));
    EXPECT_THAT(next - period.count(), AllOf(Ge(addedAt), Le(calledAt.load())));
    EXPECT_THAT(next - left, AllOf(Ge(calledAt + 30), Le(loggedAt.load() + 1)));
}

TEST_F(PeriodicCallerManagerPassTest, PassWithoutDueItemsLogsNoPassText)
{
    auto sut = makeAsleep();

    Token const token = sut->add([] {}, sixYears);
    SchedulerSleep::await();

    EXPECT_GE(log.count(trace("dueInPeriod: (0) items")), 1);
    EXPECT_EQ(log.count(isLine(Severity::Trace, logger, HasSubstr("Executing"))), 0);
}

TEST_F(PeriodicCallerManagerPassTest, PassTextIsLoggedAtTraceOnly)
{
    std::atomic<int> calls{0};
    auto sut = makeAsleep();
    Log::LoggerProxy::instance().setThreshold(Severity::Debug);
    log.clear();

    Token token = sut->add([&calls] { ++calls; }, longPeriod);
    EXPECT_TRUE(hasBecome(calls, 1));
    SchedulerSleep::await();
    token.reset();

    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_P(PeriodicCallerManagerPassStrategyTest, RequestMadeDuringTheExecutionGivesAnotherPass)
{
    HeldCall blocker;
    Token added;
    auto sut = makeAsleep(GetParam());
    Token const blocking = sut->add([&] { blocker(); }, longPeriod);
    EXPECT_TRUE(blocker.awaitEntered());
    Token const adding = sut->add([&] { added = sut->add([] {}, sixYears); }, longPeriod);
    log.clear();

    blocker.release();
    EXPECT_TRUE(log.waitFor(trace("Item added. Having (3) now")));
    SchedulerSleep::await();

    std::vector<std::string> passes;
    for (auto const& logged : log.linesOf(logger))
    {
        if (logged.text.rfind("dueInPeriod", 0) == 0)
        {
            passes.push_back(logged.text);
        }
    }
    EXPECT_THAT(passes, ElementsAre("dueInPeriod: (1) items", "dueInPeriod: (0) items"));
}

TEST_F(PeriodicCallerManagerPassTest, IdleManagerMakesNoWakeUps)
{
    std::size_t const sleepsBefore = SchedulerSleep::count();
    auto sut = makeAsleep();
    ASSERT_EQ(SchedulerSleep::count(), sleepsBefore + 1);

    std::this_thread::sleep_for(300ms); // a poller would show

    EXPECT_EQ(SchedulerSleep::count(), sleepsBefore + 1);
}

TEST_F(PeriodicCallerManagerPassTest, PassesFollowEachOtherWithoutSleepWhileSomethingIsDue)
{
    auto sut = makeAsleep();
    std::size_t const sleepsBefore = SchedulerSleep::count();

    runTimes(100, *sut, -1ms); // due in every pass

    EXPECT_EQ(SchedulerSleep::count(), sleepsBefore + 1); // the one that goes on
}

TEST_F(PeriodicCallerManagerPassTest, StartsAreAtLeastOnePeriodApart)
{
    std::atomic<int> tens{0};
    std::atomic<int> fours{0};
    auto sut = makeAsleep();
    auto const begin = steady_clock::now();

    Token ten = sut->add([&tens] { ++tens; }, 100ms);
    Token four = sut->add([&fours] { ++fours; }, 250ms);
    EXPECT_TRUE(hasBecome(tens, 10));
    EXPECT_TRUE(hasBecome(fours, 4));
    int const countOfTens = tens;
    int const countOfFours = fours;
    auto const elapsed = steady_clock::now() - begin;
    SchedulerSleep::await(40ms);
    ten.reset();
    end(four);

    EXPECT_GE(elapsed, 900ms);
    EXPECT_LT(elapsed, 5s);
    EXPECT_LE(countOfTens, elapsed / 100ms + 1);
    EXPECT_LE(countOfFours, elapsed / 250ms + 1);
}

TEST_F(PeriodicCallerManagerPassTest, MissedPeriodsAreNotMadeUp)
{
    HeldCall blocker;
    std::vector<steady_clock::time_point> starts; // on the scheduler thread, then read after the removal
    std::atomic<int> calls{0};
    auto sut = makeAsleep();
    Token token = sut->add(
        [&]
        {
            starts.push_back(steady_clock::now());
            ++calls;
            blocker();
        },
        100ms);
    EXPECT_TRUE(blocker.awaitEntered());

    std::this_thread::sleep_for(500ms); // five periods are missed
    blocker.release();
    EXPECT_TRUE(hasBecome(calls, 5));
    end(token);

    ASSERT_GE(starts.size(), 5);
    // Three periods, less what the second start may have been noted late; at once if missed ones were made up.
    EXPECT_GE(starts[4] - starts[1], 200ms);
}

}

}
