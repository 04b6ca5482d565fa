#include <utils/CodeMonitor.h>

#include "support/CallDouble.h"

#include <gtest/gtest.h>

#include <pthread.h>
#include <time.h>

#include <cerrno>
#include <chrono>

using namespace Halden::Tavro::TestSupport;
using namespace Halden::Tavro::Utils;
using namespace std::chrono_literals;

namespace
{

CallDouble<int(pthread_cond_t*, pthread_mutex_t*, clockid_t, timespec const*)> clockWait{"pthread_cond_clockwait"};
CallDouble<int(pthread_cond_t*)> broadcast{"pthread_cond_broadcast"};

std::chrono::nanoseconds toDuration(timespec const& time)
{
    return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
}

}

extern "C" int pthread_cond_clockwait(pthread_cond_t* condition, pthread_mutex_t* mutex, clockid_t clock,
                                      timespec const* until)
{
    return clockWait(condition, mutex, clock, until);
}

extern "C" int pthread_cond_broadcast(pthread_cond_t* condition) noexcept
{
    return broadcast(condition);
}

namespace
{

// The one thread opens the barrier from inside its own wait, which then ends by its limit: no notification reaches it.
TEST(CodeMonitorWaitTest, AMissedNotificationIsMadeGoodAfterAtMost50Milliseconds)
{
    CodeMonitor sut("sut");
    sut.closeBarrier();
    bool wasTrapped = false;
    clockWait.reset();
    clockWait.replace(
        [&](auto*, auto*, clockid_t clock, timespec const* until)
        {
            timespec now{};
            clock_gettime(clock, &now);
            EXPECT_LE(toDuration(*until) - toDuration(now), 50ms);
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
