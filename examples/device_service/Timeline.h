#pragma once

#include "JobRecord.h"

#include <list>
#include <ostream>

namespace DeviceService
{

/// Draws an SVG picture: a row per job, a mark per execution along the time axis, its lateness before it.
void writeTimeline(std::ostream& stream, std::list<JobRecord> const& records, Clock::time_point begin,
                   Clock::time_point end);

}
