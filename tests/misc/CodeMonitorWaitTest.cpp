#include <utils/CodeMonitor.h>

#include "misc/ConditionDoubles.h"
#include "support/ClockTime.h"
#include "support/WaitFor.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <ctime>
#include <future>

namespace Halden::Tavro::Utils
{

namespace
{

using namespace TestSupport;
using namespace std::chrono_literals;

// The one thread opens the barrier from inside its own wait, which then ends by its limit: no notification reaches it.
TEST(CodeMonitorWaitTest, MissedNotificationIsMadeGoodAfterAtMost50Milliseconds)
{
    CodeMonitor sut("sut");
    sut.closeBarrier();
    bool wasTrapped = false;
    clockWait.reset();
    clockWait.replace(
        [&](auto*, auto*, clockid_t clock, timespec const* until)
        {
            EXPECT_LE(toDuration(*until) - timeOf(clock), 50ms);
            wasTrapped = sut.openBarrier();
            return ETIMEDOUT;
        });

    EXPECT_TRUE(sut.crossBarrier());

    EXPECT_EQ(clockWait.count(), 1U);
    EXPECT_TRUE(wasTrapped);
}

TEST(CodeMonitorWaitTest, StaysHeldWhenAWaitEndsWithoutAnOpening)
{
    CodeMonitor sut("sut");
    sut.closeBarrier();
    clockWait.reset();
    clockWait.replace(
        [&](auto*, auto*, clockid_t, timespec const*)
        {
            if (clockWait.count() < 5)
            {
                return clockWait.count() % 2 == 0 ? 0 : ETIMEDOUT; // woken up for no reason, or the limit
            }
            sut.openBarrier();
            return ETIMEDOUT;
        });

    EXPECT_TRUE(sut.crossBarrier());

    EXPECT_EQ(clockWait.count(), 5U);
}

TEST(CodeMonitorWaitTest, OpeningNotifiesEveryThread)
{
    CodeMonitor sut("sut");
    sut.closeBarrier();
    broadcast.reset();

    sut.openBarrier();

    EXPECT_EQ(broadcast.count(), 1U);
}

TEST(CodeMonitorWaitTest, QuestionForATrappedThreadTakesTheMutex)
{
    CodeMonitor sut("sut");
    sut.closeBarrier();
    std::atomic<bool> released{false};
    std::future<bool> question;
    clockWait.reset();
    clockWait.replace(
        [&](auto*, auto*, clockid_t, timespec const*)
        {
            // This thread holds the mutex here, up to the end of the crossing.
            question = std::async(std::launch::async,
                                  [&]
                                  {
                                      sut.trappedAtBarrier();
                                      return released.load();
                                  });
            EXPECT_FALSE(becomesReady(question, 100ms));
            sut.openBarrier();
            released = true;
            return 0;
        });

    EXPECT_TRUE(sut.crossBarrier());

    ASSERT_TRUE(becomesReady(question));
    EXPECT_TRUE(question.get());
}

TEST(CodeMonitorWaitTest, OnlyTheBarrierAndTheQuestionForItTakeTheMutex)
{
    CodeMonitor sut("sut");
    sut.closeBarrier();
    bool wasTrapped = false;
    clockWait.reset();
    clockWait.replace(
        [&](auto*, auto*, clockid_t, timespec const*)
        {
            // This thread holds the mutex here, and would wait for itself.
            wasTrapped = sut.waitTrapped(0ms);
            sut.setArgument("value", 5ULL);
            EXPECT_EQ(sut.getArgument("value").value.uint64, 5U);
            sut.openBarrier();
            EXPECT_FALSE(sut.crossBarrier());
            return 0;
        });

    EXPECT_TRUE(sut.crossBarrier());

    EXPECT_TRUE(wasTrapped);
}

TEST(CodeMonitorWaitTest, WaitsByTheMonotonicClock)
{
    CodeMonitor sut("sut");
    sut.closeBarrier();
    clockWait.reset();
    clockWait.replace(
        [&](auto*, auto*, clockid_t clock, timespec const*)
        {
            EXPECT_EQ(clock, CLOCK_MONOTONIC);
            sut.openBarrier();
            return 0;
        });

    EXPECT_TRUE(sut.crossBarrier());
}

}

}
