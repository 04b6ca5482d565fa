#pragma once

#include <log/Logger.h>
#include <utils/PeriodicCallerManager.h>

#include <chrono>
#include <optional>
#include <string>
#include <variant>

namespace DeviceService
{

struct Options
{
    Halden::Tavro::Utils::PeriodicCallerManager::ExecutionStrategy strategy{
        Halden::Tavro::Utils::PeriodicCallerManager::ExecutionStrategy::ThreadPool};
    std::chrono::seconds duration{10};
    std::string description{DEVICE_DESCRIPTION_XML}; ///< the UPnP device description with the service's name
    std::optional<std::string> timeline;             ///< the file to write
    std::optional<std::string> record;               ///< the HDF5 file to write
    Halden::Tavro::Log::Severity log{Halden::Tavro::Log::Severity::Error};
};

/// The exit status of a program that has done its work, or cannot begin.
struct ExitStatus
{
    int value;
};

/// Prints the help or what is wrong, where the program is to end at once.
std::variant<Options, ExitStatus> parseOptions(int argc, char const* const* argv);

}
