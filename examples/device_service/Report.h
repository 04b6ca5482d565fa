#pragma once

#include "JobRecord.h"

#include <list>
#include <ostream>

namespace DeviceService
{

/// One line: what each job found last.
void writeStatus(std::ostream& stream, std::list<JobRecord> const& records);

/// One row per job: how often it ran, how late its runs started and how long they took.
void writeTable(std::ostream& stream, std::list<JobRecord> const& records);

}
