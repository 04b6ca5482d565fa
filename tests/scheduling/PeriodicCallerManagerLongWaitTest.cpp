#include "scheduling/Strategies.h"
#include "support/CallDouble.h"
#include "support/LogCapture.h"
#include "support/SteadyClockDouble.h"
#include "support/WaitFor.h"

#include <utils/PeriodicCallerManager.h>

#include <gmock/gmock.h>

#include <pthread.h>
#include <time.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <future>
#include <memory>
#include <vector>

namespace Halden::Tavro::Utils
{

namespace
{

using namespace std::chrono_literals;
using namespace testing;
using namespace TestSupport;

using std::chrono::steady_clock;

CallDouble<int(pthread_cond_t*, pthread_mutex_t*, clockid_t, timespec const*)> condClockwait{"pthread_cond_clockwait"};

extern "C" int pthread_cond_clockwait(pthread_cond_t* condition, pthread_mutex_t* mutex, clockid_t clock,
                                      timespec const* until)
{
    return condClockwait(condition, mutex, clock, until);
}

/// A machine whose clock stands still, but for the sleeps that are skipped.
class PeriodicCallerManagerLongWaitTest : public Test
{
protected:
    static constexpr std::chrono::hours upTime{240};
    /// About 34 years.
    static constexpr std::chrono::seconds longestWait{1 << 30};
    static constexpr std::chrono::seconds fiftyYears{1'577'880'000};

    PeriodicCallerManagerLongWaitTest()
    {
        condClockwait.reset();
        condClockwait.replace(
            [this](auto* condition, auto* mutex, auto clockId, auto* until)
            {
                waitMutex = mutex;
                if (!skipping)
                {
                    ++realSleeps;
                    return condClockwait.passOn(condition, mutex, clockId, until);
                }
                std::chrono::seconds const deadline(until->tv_sec);
                deadlines.push_back(deadline);
                clock.set(deadline);
                return ETIMEDOUT;
            });
    }
    ~PeriodicCallerManagerLongWaitTest() override { condClockwait.reset(); }

    PeriodicCallerManagerLongWaitTest(PeriodicCallerManagerLongWaitTest const&) = delete;
    PeriodicCallerManagerLongWaitTest& operator=(PeriodicCallerManagerLongWaitTest const&) = delete;

    /// Until every request wakes the scheduler.
    void awaitSleep(int number) const
    {
        ASSERT_TRUE(waitFor([&] { return realSleeps == number; }));
        pthread_mutex_lock(waitMutex);
        pthread_mutex_unlock(waitMutex);
    }

    std::size_t passes(int items) const
    {
        return log.count(isLine(Log::Severity::Trace, "Halden::Tavro::Utils::PeriodicCallerManager(sensors)",
                                "dueInPeriod: (" + std::to_string(items) + ") items"));
    }

    SteadyClockDouble clock{upTime};
    LogCapture log;
    std::atomic<bool> skipping{false};
    std::atomic<int> realSleeps{0};
    std::atomic<pthread_mutex_t*> waitMutex{nullptr}; // the scheduler's
    std::vector<std::chrono::seconds> deadlines;      // of the skipped sleeps; on the scheduler thread
};

TEST_F(PeriodicCallerManagerLongWaitTest, WaitOfFiftyYearsIsMadeInPiecesThatA32BitClockHoldsAndInOnePass)
{
    std::promise<steady_clock::time_point> called;
    auto calledAt = called.get_future();
    auto const sut = std::make_shared<PeriodicCallerManager>(Strategy::Sequential, "sensors");
    awaitSleep(1);

    skipping = true;
    Token const token = sut->add(
        [&]
        {
            skipping = false;
            called.set_value(steady_clock::now());
            clock.set(upTime); // a clock of 32 bits could not be asked to sleep from then on
        },
        fiftyYears);

    ASSERT_TRUE(waitFor([&] { return realSleeps == 2; }));
    EXPECT_EQ(calledAt.get().time_since_epoch(), fiftyYears);
    EXPECT_THAT(deadlines, ElementsAre(upTime + longestWait, fiftyYears));
    EXPECT_EQ(passes(0), 2U); // the first one and that after add()
    EXPECT_EQ(passes(1), 1U);
    awaitSleep(2);
}

TEST_F(PeriodicCallerManagerLongWaitTest, SleepWithoutEndIsMadeInPiecesInOnePass)
{
    skipping = true;
    condClockwait.replace(
        [this](auto* condition, auto* mutex, auto clockId, auto* until)
        {
            waitMutex = mutex;
            deadlines.emplace_back(until->tv_sec);
            if (deadlines.size() == 3)
            {
                ++realSleeps;
                return condClockwait.passOn(condition, mutex, clockId, until);
            }
            return ETIMEDOUT; // without a step of the clock
        });

    auto const sut = std::make_shared<PeriodicCallerManager>(Strategy::Sequential, "sensors");
    awaitSleep(1);

    EXPECT_THAT(deadlines, Each(std::chrono::seconds(upTime + longestWait)));
    EXPECT_EQ(passes(0), 1U);
}

TEST_F(PeriodicCallerManagerLongWaitTest, StopInALaterPieceIsLoggedOnce)
{
    condClockwait.replace(
        [&](auto* condition, auto* mutex, auto clockId, auto* until)
        {
            waitMutex = mutex;
            if (++realSleeps == 2)
            {
                return condClockwait.passOn(condition, mutex, clockId, until);
            }
            return ETIMEDOUT;
        });
    auto sut = std::make_shared<PeriodicCallerManager>(Strategy::Sequential, "sensors");
    awaitSleep(2);

    sut.reset();

    EXPECT_EQ(log.count(isLine(Log::Severity::Info, "Halden::Tavro::Utils::PeriodicCallerManager(sensors)",
                               "stop requested: leaving wait")),
              1U);
}

}

}
