#include <utils/WaitSpinLock.h>

#include "support/CallDouble.h"
#include "support/SteadyClockDouble.h"

#include <gtest/gtest.h>

#include <sched.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <type_traits>

namespace Halden::Tavro::Utils
{

namespace
{

using TestSupport::CallDouble;
using TestSupport::SteadyClockDouble;
using namespace std::chrono_literals;

// No CallDouble, as that allocates: the leak checker yields while it holds the allocator's locks.
std::atomic<unsigned> yields{0};
CallDouble<int(timespec const*, timespec*)> nanoSleep{"nanosleep"};
CallDouble<int(clockid_t, int, timespec const*, timespec*)> clockNanosleep{"clock_nanosleep"};

}

}

using namespace Halden::Tavro::Utils;

extern "C" int sched_yield() noexcept
{
    ++yields;
    return static_cast<int>(syscall(SYS_sched_yield));
}

extern "C" int nanosleep(timespec const* requested, timespec* remaining)
{
    return nanoSleep(requested, remaining);
}

extern "C" int clock_nanosleep(clockid_t clock, int flags, timespec const* requested, timespec* remaining)
{
    return clockNanosleep(clock, flags, requested, remaining);
}

namespace Halden::Tavro::Utils
{

namespace
{

TEST(WaitSpinLockTest, IsPolymorphicWithoutFields)
{
    EXPECT_TRUE(std::has_virtual_destructor_v<WaitSpinLock>);
    EXPECT_EQ(sizeof(WaitSpinLock), sizeof(void*));
}

TEST(WaitSpinLockTest, RealClockHasMovedOnByTheDuration)
{
    auto const start = std::chrono::steady_clock::now();

    WaitSpinLock(200us);

    EXPECT_GE(std::chrono::steady_clock::now() - start, 200us);
}

TEST(WaitSpinLockTest, ReadsTheClockUntilTheDurationHasPassed)
{
    SteadyClockDouble clock(1h);
    clock.advanceWithEachReading(1us);

    WaitSpinLock(5us);

    EXPECT_EQ(clock.readings(), 1U + 5U); // the start, then those of 1 us to 5 us
}

TEST(WaitSpinLockTest, ComparesInNanoseconds)
{
    SteadyClockDouble clock(1h);
    clock.advanceWithEachReading(999ns);

    WaitSpinLock(1us);

    EXPECT_EQ(clock.readings(), 1U + 2U); // 999 ns are not enough
}

TEST(WaitSpinLockTest, ZeroDurationEndsWithTheFirstReadingAfterTheStart)
{
    SteadyClockDouble const clock(1h);

    WaitSpinLock(0us);

    EXPECT_EQ(clock.readings(), 2U);
}

TEST(WaitSpinLockTest, NegativeDurationEndsWithTheFirstReadingAfterTheStart)
{
    SteadyClockDouble const clock(1h);

    WaitSpinLock(-1us);
    WaitSpinLock{std::chrono::microseconds::min()};

    EXPECT_EQ(clock.readings(), 4U);
}

TEST(WaitSpinLockTest, GreatestDurationLastsAsLongAsTheClockCanTell)
{
    SteadyClockDouble clock(0ns);
    clock.advanceWithEachReading(std::chrono::nanoseconds::max() / 2 + 1ns);

    WaitSpinLock{std::chrono::microseconds::max()};

    EXPECT_EQ(clock.readings(), 3U); // half of the clock's range is not enough
}

// kept: the scheduler would overshoot waits of microseconds
TEST(WaitSpinLockTest, NeitherSleepsNorYields)
{
    yields = 0;
    nanoSleep.reset();
    clockNanosleep.reset();

    WaitSpinLock(2000us);

    EXPECT_EQ(yields, 0U);
    EXPECT_EQ(nanoSleep.count(), 0U);
    EXPECT_EQ(clockNanosleep.count(), 0U);
}

}

}
