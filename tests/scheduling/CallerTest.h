#pragma once

#include "scheduling/ThreadDoubles.h"
#include "support/CallDouble.h"
#include "support/ClockTime.h"
#include "support/LogCapture.h"
#include "support/Recorded.h"
#include "support/WaitFor.h"

#include <utils/PeriodicCaller.h>

#include <gmock/gmock.h>

#include <pthread.h>
#include <time.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <functional>
#include <mutex>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

/// What the tests of the periodic caller share. For test programs that list scheduling/CallerTest.cpp and
/// scheduling/ThreadDoubles.cpp among their sources.
namespace Halden::Tavro::TestSupport
{

/// The wall clock of the process where it is not negative, in nanoseconds since the epoch.
extern std::atomic<std::chrono::nanoseconds::rep> wallClock;

/// How far the monotonic clock of this thread is ahead.
extern thread_local std::chrono::nanoseconds monotonicLead;

extern CallDouble<int(pthread_cond_t*, pthread_mutex_t*, clockid_t, timespec const*)> condClockwait;

inline std::string const loggerOfLed = "Halden::Tavro::Utils::PeriodicCaller 'led'";

inline auto debugLine(std::string const& text)
{
    return isLine(Log::Severity::Debug, loggerOfLed, text);
}

inline auto const stopping = isLine(Log::Severity::Trace, loggerOfLed, "~stop: stopping the periodic caller thread");
inline auto const endedByException =
    isLine(Log::Severity::Critical, loggerOfLed, "PeriodicCaller thread stop because of exception. What: broken");

inline auto throwsAlreadyStarted(std::string const& name)
{
    return testing::ThrowsMessage<std::runtime_error>(
        testing::StrEq("PeriodicCaller is already started. Name = '" + name + "'"));
}

inline void doNothing(std::chrono::microseconds const& /*elapsed*/) {}

/// One wait of the worker, as asked from the system.
struct Wait
{
    clockid_t clock;
    std::chrono::nanoseconds deadline; // since the clock's epoch
    std::chrono::nanoseconds left;     // from the call to the deadline
};

class CallerTest : public testing::Test
{
protected:
    CallerTest()
    {
        condClockwait.reset();
        pthreadCreate.reset();
        wallClock = -1;
        recordWaits([this](Wait const& /*wait*/) { return skippedWaits-- > 0; });
    }

    ~CallerTest() override
    {
        condClockwait.reset();
        pthreadCreate.reset();
        wallClock = -1;
    }

    /// Records the worker's waits. Those that `passesAtOnce` says take no time but on the worker's monotonic clock.
    void recordWaits(std::function<bool(Wait const&)> passesAtOnce)
    {
        condClockwait.replace(
            [this, passesAtOnce = std::move(passesAtOnce)](auto* condition, auto* mutex, auto clock, auto* deadline)
            {
                auto const now = std::chrono::steady_clock::now().time_since_epoch();
                Wait const wait{clock, toDuration(*deadline), toDuration(*deadline) - now};
                objectsMutex = mutex;
                waits.add(wait);
                if (!passesAtOnce(wait))
                {
                    return condClockwait.passOn(condition, mutex, clock, deadline);
                }
                monotonicLead += wait.left;
                wallClock += wallClockStep;
                return ETIMEDOUT;
            });
    }

    bool objectsMutexIsFree() const
    {
        if (pthread_mutex_trylock(objectsMutex) != 0)
        {
            return false;
        }
        pthread_mutex_unlock(objectsMutex);
        return true;
    }

    /// Makes the object's mutex known.
    void startAndStop(Utils::PeriodicCaller& sut)
    {
        sut.start();
        EXPECT_TRUE(waits.waitForCount(1));
        sut.stop();
    }

    LogCapture log;
    Recorded<Wait> waits;
    std::atomic<pthread_mutex_t*> objectsMutex{nullptr};         // known from the first wait on
    std::atomic<int> skippedWaits{0};                            // those from the start on that take no real time
    std::atomic<std::chrono::nanoseconds::rep> wallClockStep{0}; // of the wall clock in each skipped wait
};

}
