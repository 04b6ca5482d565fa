#pragma once

#include "JobRecord.h"

#include <list>
#include <string>

namespace DeviceService
{

/// Makes an empty HDF5 file, so that one that cannot be written is found out early.
///
/// @throws std::runtime_error
void createRecording(std::string const& path);

/// Writes a data set for each job: when each of its runs was due, started and ended, in seconds since `begin`, and
/// whether it failed.
///
/// @throws std::runtime_error
void writeRecording(std::string const& path, std::list<JobRecord> const& records, Clock::time_point begin);

}
