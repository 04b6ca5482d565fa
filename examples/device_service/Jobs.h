#pragma once

#include "Addresses.h"

#include <utils/SystemTimeHandler.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

namespace DeviceService
{

/// One thing that the service does again and again.
struct Job
{
    std::string name;
    std::chrono::milliseconds period;
    std::function<std::string()> function; ///< returns what it has found, for the status; may throw
};

/// The jobs of a small device: it watches itself, samples a sensor, sends data away and now and then fails.
///
/// The arguments outlive the jobs.
std::vector<Job> makeJobs(Halden::Tavro::Utils::SystemTimeHandlerIfc const& systemTime, Addresses& addresses);

}
