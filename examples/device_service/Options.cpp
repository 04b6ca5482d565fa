#include "Options.h"

#include <map>
#include <string>
#include <vector>

namespace DeviceService
{

namespace
{

using Halden::Tavro::Log::Severity;
using Strategy = Halden::Tavro::Utils::PeriodicCallerManager::ExecutionStrategy;

std::map<std::string, Strategy> const strategies{{"sequential", Strategy::Sequential},
                                                 {"thread-pool", Strategy::ThreadPool}};

std::map<std::string, Severity> const severities{{"critical", Severity::Critical}, {"error", Severity::Error},
                                                 {"warning", Severity::Warning},   {"info", Severity::Info},
                                                 {"debug", Severity::Debug},       {"trace", Severity::Trace}};

template <typename Value>
std::vector<std::string> namesOf(std::map<std::string, Value> const& values)
{
    std::vector<std::string> names;
    names.reserve(values.size());
    for (auto const& [name, value] : values)
    {
        names.push_back(name);
    }
    return names;
}

}

void declareOptions(Program& program, Options& options)
{
    program.option("--strategy", options.strategy, "Runs the jobs one after the other or side by side")
        .oneOf(namesOf(strategies))
        .showDefault();
    program.option("--seconds", options.seconds, "Ends after that many seconds, or earlier with Ctrl-C")
        .range(1, 86400)
        .showDefault();
    program.option("--description", options.description, "Takes its name from this UPnP device description");
    program.option("--timeline", options.timeline, "Draws all executions into this SVG file");
    program.option("--record", options.record, "Records all executions into this HDF5 file");
    program.option("--metrics", options.metrics, "Keeps the figures of all functions in this file, for node_exporter");
    program.option("--log", options.log, "Where the log goes: stderr, syslog, journal, or a file's path").showDefault();
    program.option("--severity", options.severity, "The least severe messages that are logged")
        .oneOf(namesOf(severities))
        .showDefault();
}

Strategy strategyOf(Options const& options)
{
    return strategies.at(options.strategy);
}

Severity severityOf(Options const& options)
{
    return severities.at(options.severity);
}

}
