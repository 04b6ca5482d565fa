#include "misc/ConditionDoubles.h"

namespace Halden::Tavro::TestSupport
{

CallDouble<int(pthread_cond_t*, pthread_mutex_t*, clockid_t, timespec const*)> clockWait{"pthread_cond_clockwait"};
CallDouble<int(pthread_cond_t*)> broadcast{"pthread_cond_broadcast"};

}

using namespace Halden::Tavro::TestSupport;

extern "C" int pthread_cond_clockwait(pthread_cond_t* condition, pthread_mutex_t* mutex, clockid_t clock,
                                      timespec const* until)
{
    return clockWait(condition, mutex, clock, until);
}

extern "C" int pthread_cond_broadcast(pthread_cond_t* condition) noexcept
{
    return broadcast(condition);
}
