#pragma once

#include <pthread.h>

#include <mutex>

namespace Halden::Tavro::Log
{

/// Sees to it that nobody holds the mutex in a forked child, which has no other thread to release it.
///
/// To be called before main: the first to register is the last to be asked before a fork, as the last locks to be taken
/// are those of logging.
template <std::mutex& mutex>
void holdWhileForking()
{
    pthread_atfork([] { mutex.lock(); }, [] { mutex.unlock(); }, [] { mutex.unlock(); });
}

}
