#include "scheduling/CallerTest.h"

namespace Halden::Tavro::TestSupport
{

std::atomic<std::chrono::nanoseconds::rep> wallClock{-1};
thread_local std::chrono::nanoseconds monotonicLead{0};
CallDouble<int(pthread_cond_t*, pthread_mutex_t*, clockid_t, timespec const*)> condClockwait{"pthread_cond_clockwait"};

namespace
{

using std::chrono::nanoseconds;

}

extern "C" int pthread_cond_clockwait(pthread_cond_t* condition, pthread_mutex_t* mutex, clockid_t clock,
                                      timespec const* deadline)
{
    return condClockwait(condition, mutex, clock, deadline);
}

extern "C" int clockOfTest(clockid_t clock, timespec* time) noexcept
{
    // No CallDouble: run-time libraries read the clocks before its constructor has run.
    static auto* const systemsOwn = systemFunction<int (*)(clockid_t, timespec*)>("clock_gettime");
    int const result = systemsOwn(clock, time);
    if (clock == CLOCK_REALTIME && wallClock >= 0)
    {
        *time = toTimespec(nanoseconds(wallClock));
    }
    if (clock == CLOCK_MONOTONIC && monotonicLead != nanoseconds(0))
    {
        *time = toTimespec(toDuration(*time) + monotonicLead);
    }
    return result;
}
HALDEN_DOUBLE(clock_gettime, clockOfTest)

}
