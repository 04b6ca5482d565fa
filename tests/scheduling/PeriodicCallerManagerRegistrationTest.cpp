#include "scheduling/CountsCopies.h"
#include "scheduling/HeldCall.h"
#include "scheduling/ManagerTest.h"
#include "scheduling/SchedulerSleep.h"

#include <gmock/gmock.h>

#include <cmath>
#include <limits>
#include <stdexcept>
#include <string>
#include <thread>
#include <tuple>
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

using PeriodicCallerManagerRegistrationTest = ManagerTest;

TEST_F(PeriodicCallerManagerRegistrationTest, PeriodBelowAMillisecondIsRefused)
{
    log.expect(line(Severity::Error, "PCM item minimum period is 1ms, got 0ms"));
    auto sut = makeAsleep();

    for (double const seconds : {0.0005, 0.0, 0.0009, -0.0009, std::nan("")})
    {
        log.clear();

        EXPECT_THAT([&] { std::ignore = sut->add([] {}, std::chrono::duration<double>(seconds)); },
                    ThrowsMessage<std::invalid_argument>(StrEq("Period must be greater than zero milliseconds")))
            << seconds;
        EXPECT_THAT(log.lines(), ElementsAre(line(Severity::Error, "PCM item minimum period is 1ms, got 0ms")));
        EXPECT_EQ(nextPcmDueTime(*sut), steady_clock::time_point::max()) << "registered " << seconds;
    }
}

TEST_F(PeriodicCallerManagerRegistrationTest, PeriodIsTruncatedToMilliseconds)
{
    std::vector<std::pair<double, std::string>> const periods{
        {0.001, "1"}, {0.0019, "1"}, {2.9999, "2999"}, {3.0, "3000"}, {1'000'000.0009, "1000000000"}};
    HeldCall blocker; // keeps the scheduler from reading the list
    auto sut = makeAsleep();
    Token const blocking = sut->add([&] { blocker(); }, longPeriod);
    EXPECT_TRUE(blocker.awaitEntered());
    for (auto const& [seconds, inMs] : periods)
    {
        log.clear();
        Token const token = sut->add([] {}, std::chrono::duration<double>(seconds));

        EXPECT_EQ(log.count(trace("Adding item with period (" + inMs + ")ms")), 1) << seconds;
    }
    blocker.release();
    SchedulerSleep::await();
}

TEST_F(PeriodicCallerManagerRegistrationTest, MillisecondItemRunsAgainAndAgain)
{
    auto sut = makeAsleep();
    auto const begin = steady_clock::now();

    runTimes(20, *sut, std::chrono::duration<double>(0.001));

    EXPECT_GE(steady_clock::now() - begin, 19ms);
}

TEST_F(PeriodicCallerManagerRegistrationTest, LongestPeriodIsWhatNanosecondsHold)
{
    auto sut = makeAsleep();

    for (double const seconds : {9223372036.854, 9223372037.0, 1e300, std::numeric_limits<double>::infinity()})
    {
        log.clear();
        Token const endless = addAsleep(
            *sut, [] {}, std::chrono::duration<double>(seconds));

        EXPECT_EQ(log.count(trace(addingText(9223372036854))), 1) << seconds;
        EXPECT_EQ(nextPcmDueTime(*sut), afterBoot(9223372036854ms)) << seconds;
        SchedulerSleep::await();
    }
}

TEST_F(PeriodicCallerManagerRegistrationTest, PeriodBelowTheLongestIsKept)
{
    auto sut = makeAsleep();

    Token const century = addAsleep(
        *sut, [] {}, std::chrono::duration<double>(3'155'760'000.5));

    EXPECT_EQ(log.count(trace(addingText(3'155'760'000'500))), 1);
    EXPECT_EQ(nextPcmDueTime(*sut), afterBoot(3'155'760'000'500ms));
    SchedulerSleep::await();
}

// kept: only zero is refused, though the exception says "greater than zero"
TEST_F(PeriodicCallerManagerRegistrationTest, NegativePeriodRunsPassesBackToBack)
{
    auto sut = makeAsleep();

    runTimes(100, *sut, -5s);

    EXPECT_EQ(log.count(trace("Adding item with period (" + std::to_string(static_cast<unsigned long>(-5000)) + ")ms")),
              1);
    // The next due time was always past by the whole period.
    EXPECT_EQ(log.count(isLine(Severity::Trace, logger,
                               AllOf(StartsWith("Executing (1) took ("), HasSubstr("ms which means (-5")))),
              99);
}

TEST_F(PeriodicCallerManagerRegistrationTest, NegativePeriodsDownToTheLongestRunPassesBackToBack)
{
    auto sut = makeAsleep();

    for (double const seconds : {-3'155'760'000.0, -9223372036.854, -std::numeric_limits<double>::infinity()})
    {
        runTimes(3, *sut, std::chrono::duration<double>(seconds));
    }

    EXPECT_EQ(log.count(trace(addingText(-9223372036854))), 2);
}

// kept: a copy; how often a function is copied, which may cost, is what callers know
TEST_F(PeriodicCallerManagerRegistrationTest, AddCopiesTheFunctionOnce)
{
    int copies = 0;
    std::function<void()> function = CountsCopies(copies);
    auto sut = makeAsleep();
    copies = 0;

    Token const token = sut->add(std::move(function), thirtyYears);

    EXPECT_EQ(copies, 1);
    SchedulerSleep::await();
}

TEST_F(PeriodicCallerManagerRegistrationTest, AddOfAnEarlierItemLogsEachStep)
{
    auto sut = makeAsleep();
    log.clear();

    Token const first = sut->add([] {}, thirtyYears);
    SchedulerSleep::await();

    EXPECT_THAT(firstLines(4),
                ElementsAre(trace(addingText(1000000000000)), trace("Item added. Having (1) now"),
                            trace("Scheduler next due time (9223372036854ms) lowered to (1000000000000ms)"),
                            trace("notify scheduler to update the wait_until time")));
    log.clear();

    Token const second = sut->add([] {}, sixYears);
    SchedulerSleep::await();

    EXPECT_THAT(firstLines(4),
                ElementsAre(trace(addingText(200000000000)), trace("Item added. Having (2) now"),
                            trace("Scheduler next due time (1000000000000ms) lowered to (200000000000ms)"),
                            trace("notify scheduler to update the wait_until time")));
}

TEST_F(PeriodicCallerManagerRegistrationTest, AddOfALaterItemLeavesTheNextDueTime)
{
    auto sut = makeAsleep();
    Token const first = addAsleep(
        *sut, [] {}, sixYears);
    SchedulerSleep::await();
    log.clear();

    Token const later = addAsleep(
        *sut, [] {}, thirtyYears);
    Token const equal = addAsleep(
        *sut, [] {}, sixYears);

    EXPECT_EQ(log.count(trace("Item added. Having (3) now")), 1);
    EXPECT_EQ(log.count(isLine(Severity::Trace, logger, HasSubstr("lowered"))), 0);
    EXPECT_EQ(log.count(isLine(Severity::Trace, logger, HasSubstr("notify"))), 0);
    SchedulerSleep::await();
}

TEST_F(PeriodicCallerManagerRegistrationTest, AddWakesTheSchedulerForItsItemAndOnceMoreForAnEarlierDueTime)
{
    auto sut = makeAsleep();
    std::size_t const requestsBefore = SchedulerSleep::requests();

    Token const earliest = addAsleep(
        *sut, [] {}, sixYears);
    EXPECT_EQ(SchedulerSleep::requests(), requestsBefore + 2);
    Token const later = addAsleep(
        *sut, [] {}, thirtyYears);
    EXPECT_EQ(SchedulerSleep::requests(), requestsBefore + 3);

    SchedulerSleep::await();
}

TEST_F(PeriodicCallerManagerRegistrationTest, AddAndRemoveFromSeveralThreadsAtOnceKeepTheList)
{
    constexpr int threadCount = 4;
    constexpr int rounds = 200;
    HeldCall blocker; // keeps the scheduler from reading the list
    auto sut = makeAsleep();
    Token const blocking = sut->add([&] { blocker(); }, sinceBoot() / 2);
    EXPECT_TRUE(blocker.awaitEntered());
    std::vector<Token> kept(threadCount);

    std::vector<std::thread> threads;
    for (auto& last : kept)
    {
        threads.emplace_back(
            [&sut, &last]
            {
                for (int i = 0; i < rounds; ++i)
                {
                    last = sut->add([] {}, sixYears);
                }
            });
    }
    for (auto& thread : threads)
    {
        thread.join();
    }

    EXPECT_EQ(dueUntil(*sut, steady_clock::time_point::max()).size(), threadCount + 1);
    EXPECT_EQ(log.count(isLine(Severity::Trace, logger, HasSubstr("Item added."))), threadCount * rounds + 1);
    blocker.release();
    SchedulerSleep::await();
}

}

}
