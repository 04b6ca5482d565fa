#pragma once

#include <sys/types.h>

namespace Halden::Tavro::Bench
{

/// Waits until the kernel has put a thread of this process to sleep.
///
/// A wake-up of the scheduler is asked for without its mutex, and one that comes before it sleeps may be lost: whoever
/// destroys a manager here first makes sure that its thread sleeps.
///
/// @throws std::runtime_error when it does not sleep within 10 s
void waitUntilAsleep(pid_t thread);

/// How often a thread of this process has gone to sleep so far.
unsigned long sleepsOf(pid_t thread);

}
