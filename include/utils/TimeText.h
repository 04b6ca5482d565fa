#pragma once

#include <utils/Export.h>

#include <chrono>
#include <string>

namespace Halden::Tavro::Utils
{

/// The time point in local time, in the form 2024-03-05T07:08:09.045Z.
///
/// Despite the name and the "Z" it is UTC only where the process's time zone (`TZ`) is UTC. The zone is looked up
/// again on each call, which costs most of it.
///
/// Threads: may be called from several at once, as long as none changes the environment meanwhile.
///
/// Limits:
/// - A time that the target's time_t cannot hold, with 32 bits one after January 2038, wraps.
/// - Before 1970, a time that is not on a whole second prints a second too late, with a large number behind the point:
///   seconds and milliseconds are truncated towards 1970, and the milliseconds print as an unsigned int. One
///   millisecond before 1970 is 1970-01-01T00:00:00.4294967295Z.
HALDEN_CPPUTILS_EXPORT std::string toUtcString(std::chrono::system_clock::time_point const& tp);

}
