#pragma once

#include "JobRecord.h"

#include <prometheus/registry.h>

#include <list>
#include <ostream>

namespace DeviceService
{

/// One line: what each job found last.
void writeStatus(std::ostream& stream, std::list<JobRecord> const& records);

/// What the names of the service's metrics begin with.
constexpr char const* metricsPrefix = "device_service_function";

/// One row per job, from the figures of that prefix: how often it ran, how late its runs started and how long they
/// took. Times are as fine as the figures' buckets: a half, or 99 of 100, or all took no longer than shown.
void writeTable(std::ostream& stream, std::list<JobRecord> const& records, prometheus::Registry const& figures);

}
