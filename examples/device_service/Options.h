#pragma once

#include "../support/Program.h"

#include <log/Logger.h>
#include <utils/PeriodicCallerManager.h>

#include <optional>
#include <string>

namespace DeviceService
{

struct Options
{
    std::string strategy{"thread-pool"};
    int seconds{10};
    std::string description{DEVICE_DESCRIPTION_XML}; ///< the UPnP device description with the service's name
    std::optional<std::string> timeline;             ///< the file to write
    std::optional<std::string> record;               ///< the HDF5 file to write
    std::optional<std::string> metrics;              ///< the file to write
    std::string log{"stderr"};                       ///< where the log goes
    std::string severity{"error"};
};

/// Tells the program of the options, which have their values once it runs.
void declareOptions(Program& program, Options& options);

Halden::Tavro::Utils::PeriodicCallerManager::ExecutionStrategy strategyOf(Options const& options);
Halden::Tavro::Log::Severity severityOf(Options const& options);

}
