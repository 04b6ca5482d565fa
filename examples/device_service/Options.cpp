#include "Options.h"

#include <map>

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

}

void declareOptions(CLI::App& app, Options& options)
{
    app.add_option("--strategy", options.strategy, "Runs the jobs one after the other or side by side")
        ->check(CLI::IsMember(&strategies))
        ->capture_default_str();
    app.add_option("--seconds", options.seconds, "Ends after that many seconds, or earlier with Ctrl-C")
        ->check(CLI::Range(1, 86400))
        ->capture_default_str();
    app.add_option("--description", options.description, "Takes its name from this UPnP device description");
    app.add_option("--timeline", options.timeline, "Draws all executions into this SVG file");
    app.add_option("--record", options.record, "Records all executions into this HDF5 file");
    app.add_option("--metrics", options.metrics, "Keeps the figures of all functions in this file, for node_exporter");
    app.add_option("--log", options.log, "Where the log goes: stderr, syslog, journal, or a file's path")
        ->capture_default_str();
    app.add_option("--severity", options.severity, "The least severe messages that are logged")
        ->check(CLI::IsMember(&severities))
        ->capture_default_str();
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
