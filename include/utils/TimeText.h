#pragma once

#include <utils/Export.h>

#include <chrono>
#include <string>

namespace Halden::Tavro::Utils
{

/// The time point in the form 2024-03-05T07:08:09.045Z. The look at the time zone costs most of it.
///
/// Despite the name and the "Z" the text is local time, UTC only where the process's time zone (`TZ`) is UTC. The zone
/// is looked up anew on each call. A time that the target's time_t cannot hold (with 32 bits: after January 2038)
/// wraps.
///
/// Seconds and milliseconds are truncated towards 1970, and the milliseconds print as an unsigned int. So a time before
/// 1970 that is not on a whole second prints a second too late and a large number behind the point: one millisecond
/// before 1970 is 1970-01-01T00:00:00.4294967295Z.
///
/// Threads: may be called from several at once, as long as none changes the environment meanwhile.
HALDEN_CPPUTILS_EXPORT std::string toUtcString(std::chrono::system_clock::time_point const& tp);

}
