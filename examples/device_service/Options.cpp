#include "Options.h"

#include <CLI/CLI.hpp>

#include <iostream>
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

std::variant<Options, ExitStatus> parseOptions(int argc, char const* const* argv)
{
    Options options;
    std::string strategy = "thread-pool";
    std::string log = "error";
    int seconds = static_cast<int>(options.duration.count());

    CLI::App app("A small device service: runs its jobs periodically, shows their state and reports how punctual "
                 "they were.",
                 "device_service");
    app.add_option("--strategy", strategy, "Runs the jobs one after the other or side by side")
        ->check(CLI::IsMember(&strategies))
        ->capture_default_str();
    app.add_option("--seconds", seconds, "Ends after that many seconds, or earlier with Ctrl-C")
        ->check(CLI::Range(1, 86400))
        ->capture_default_str();
    app.add_option("--description", options.description, "Takes its name from this UPnP device description");
    app.add_option("--timeline", options.timeline, "Draws all executions into this SVG file");
    app.add_option("--record", options.record, "Records all executions into this HDF5 file");
    app.add_option("--log", log, "The least severe messages that go to standard error")
        ->check(CLI::IsMember(&severities))
        ->capture_default_str();
    try
    {
        app.parse(argc, argv);
    }
    catch (CLI::CallForHelp const&)
    {
        std::cout << app.help();
        return ExitStatus{0};
    }
    catch (CLI::ParseError const& error)
    {
        std::cerr << "device_service: " << error.what() << "\nRun with --help for the options.\n";
        return ExitStatus{2};
    }
    options.strategy = strategies.at(strategy);
    options.log = severities.at(log);
    options.duration = std::chrono::seconds(seconds);
    return options;
}

}
