// A whole service: periodic functions, how punctual they are, and what the service knows of its device.
//
//     device_service --seconds 10 --timeline timeline.svg

#include "../support/Files.h"
#include "../support/Program.h"
#include "../support/StopSignals.h"
#include "../support/Xml.h"
#include "Addresses.h"
#include "JobRecord.h"
#include "LogSink.h"
#include "MetricsFile.h"
#include "Options.h"
#include "Recording.h"
#include "Report.h"
#include "Timeline.h"

#include <utils/FirmwareVersionTavro.h>
#include <utils/XmlHelper.h>
#include <utils/metrics/MeasuredManager.h>

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <exception>
#include <fstream>
#include <iostream>
#include <list>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace
{

using namespace DeviceService;
using namespace std::chrono_literals;
using Halden::Tavro::Utils::PeriodicCallerManager;
using Halden::Tavro::Utils::PeriodicCallerManagerTokenIfc;
using Halden::Tavro::Utils::SystemTimeHandler;
using Halden::Tavro::Utils::Metrics::MeasuredManager;

/// The jobs at work, from construction to stop().
class Service
{
public:
    Service(PeriodicCallerManager::ExecutionStrategy strategy, std::string const& name)
        : manager(std::make_shared<PeriodicCallerManager>(strategy, name))
        , measured(std::in_place, manager, figures_, metricsPrefix)
        , systemTime(std::in_place, measured->named("clock-poll"))
    {
        systemTime->initialize();
        for (Job& job : makeJobs(*systemTime, addresses))
        {
            JobRecord& record = records.emplace_back(std::move(job), Clock::now());
            tokens.push_back(measured->add(
                record.name(), [&record] { record.run(); }, record.period()));
        }
    }

    /// From here on no job runs. A service that may meet the exact build ends by std::_Exit instead, as a token must
    /// not be destroyed there while the scheduler runs.
    void stop()
    {
        tokens.clear();
        systemTime.reset();
        measured.reset();
        manager.reset();
    }

    std::list<JobRecord> const& jobs() const { return records; }
    prometheus::Registry const& figures() const { return *figures_; }

private:
    Addresses addresses;
    std::list<JobRecord> records; // a list, for the jobs refer to its elements
    std::shared_ptr<prometheus::Registry> const figures_ = std::make_shared<prometheus::Registry>();
    std::shared_ptr<PeriodicCallerManager> manager;
    std::optional<MeasuredManager> measured;
    std::optional<SystemTimeHandler> systemTime;
    std::vector<std::unique_ptr<PeriodicCallerManagerTokenIfc>> tokens;
};

void show(Halden::Tavro::Utils::FirmwareVersionIfc const& firmware)
{
    auto const orUnknown = [](std::string const& value) { return value.empty() ? "unknown" : value; };
    std::cout << "firmware " << orUnknown(firmware.version()) << ", compatible id "
              << orUnknown(firmware.compatibleId()) << std::endl;
}

void keepFigures(Options const& options, Service const& service)
{
    if (options.metrics)
    {
        writeMetricsFile(*options.metrics, service.figures());
    }
}

/// Shows the state once a second, on a terminal always in the same line, and keeps the figures: on this thread, which
/// no function can hold up.
void showUntil(Clock::time_point deadline, StopSignals const& signals, Service const& service, Options const& options)
{
    bool const onTerminal = isatty(STDOUT_FILENO) == 1;
    for (auto next = Clock::now() + 1s; std::cout && !signals.waitUntil(std::min(next, deadline)) && next < deadline;
         next += 1s)
    {
        std::cout << (onTerminal ? "\r\033[K\033[?7l" : ""); // cut off where the terminal ends
        writeStatus(std::cout, service.jobs());
        keepFigures(options, service);
        std::cout << (onTerminal ? "\033[?7h" : "\n") << std::flush;
    }
    std::cout << (onTerminal ? "\n" : "");
}

std::string nameFrom(std::string const& description)
{
    requireReadable(description);
    try
    {
        return Halden::Tavro::Utils::XmlHelper().singleNodeText(description,
                                                                "/upnp:root/upnp:device/upnp:friendlyName");
    }
    catch (std::exception const& error)
    {
        throw std::runtime_error(description + ": no name in it: " + faultOf(error));
    }
}

void drawTimeline(Options const& options, Service const& service, Clock::time_point begin, Clock::time_point end)
{
    std::ofstream file(*options.timeline);
    writeTimeline(file, options.strategy, service.jobs(), begin, end);
    file.close();
    if (!file)
    {
        throw std::runtime_error(*options.timeline + ": " + std::strerror(errno));
    }
}

/// What cannot be written in the end is found out at the start.
void prepareFiles(Options const& options)
{
    if (options.timeline)
    {
        requireWritable(*options.timeline);
    }
    if (options.metrics)
    {
        writeMetricsFile(*options.metrics, prometheus::Registry());
    }
    if (options.record)
    {
        requireWritable(*options.record);
        createRecording(*options.record);
    }
}

int run(Options const& options)
{
    auto& log = Halden::Tavro::Log::LoggerProxy::instance();
    log.setThreshold(severityOf(options));
    log.setSink(makeLogSink(options.log));
    auto const name = nameFrom(options.description);
    prepareFiles(options);
    std::cout << name << '\n' << std::flush;
    Halden::Tavro::Utils::FirmwareVersionTavro firmware;
    firmware.init();           // a machine that is no device has no commands to ask; the log says so
    StopSignals const signals; // not for the commands
    show(firmware);
    auto const begin = Clock::now();
    Service service(strategyOf(options), name);
    showUntil(begin + std::chrono::seconds(options.seconds), signals, service, options);
    service.stop();
    auto const end = Clock::now(); // after the last run

    writeTable(std::cout, service.jobs(), service.figures());
    keepFigures(options, service);
    if (options.timeline)
    {
        drawTimeline(options, service, begin, end);
    }
    if (options.record)
    {
        writeRecording(*options.record, service.jobs(), begin);
    }
    return 0;
}

}

int main(int argc, char** argv) // NOLINT(bugprone-exception-escape): may end the program
{
    Options options;
    Program program("A small device service: runs its jobs periodically, shows their state and reports how punctual "
                    "they were.");
    declareOptions(program, options);
    return program.run(argc, argv, [&] { return run(options); });
}
