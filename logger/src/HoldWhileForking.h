#pragma once

#include <pthread.h>

#include <mutex>

namespace Halden::Tavro::Log
{

/// Sees to it that nobody holds the mutex in a forked child, which has no other thread to release it.
///
/// Call it before main: what is registered first is called last before a fork, and the locks of logging must be the
/// last to be taken.
template <std::mutex& mutex>
void holdWhileForking()
{
    pthread_atfork([] { mutex.lock(); }, [] { mutex.unlock(); }, [] { mutex.unlock(); });
}

}
