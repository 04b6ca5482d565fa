#pragma once

#include "support/CallDouble.h"

#include <pthread.h>

#include <ctime>

/// The system's functions under a CodeMonitor's wait. For test programs that list misc/ConditionDoubles.cpp among their
/// sources.
namespace Halden::Tavro::TestSupport
{

extern CallDouble<int(pthread_cond_t*, pthread_mutex_t*, clockid_t, timespec const*)> clockWait;
extern CallDouble<int(pthread_cond_t*)> broadcast;

}
