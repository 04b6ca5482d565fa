#pragma once

#include "JobRecord.h"

#include <list>
#include <ostream>
#include <string>

namespace DeviceService
{

/// Draws an SVG picture: a row per job, a mark per execution along the time axis, its lateness before it.
///
/// @param strategy for the title
void writeTimeline(std::ostream& stream, std::string const& strategy, std::list<JobRecord> const& records,
                   Clock::time_point begin, Clock::time_point end);

}
