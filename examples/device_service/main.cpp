#include "../support/Scheduler.h"
#include "../support/StopSignals.h"
#include "Addresses.h"
#include "JobRecord.h"
#include "Options.h"
#include "Recording.h"
#include "Report.h"
#include "Timeline.h"

#include <utils/FirmwareVersionTavro.h>
#include <utils/XmlHelper.h>

#include <unistd.h>

#include <algorithm>
#include <exception>
#include <fstream>
#include <iostream>
#include <list>
#include <memory>
#include <optional>
#include <string>

namespace
{

using namespace DeviceService;
using namespace std::chrono_literals;
using Halden::Tavro::Utils::PeriodicCallerManager;
using Halden::Tavro::Utils::PeriodicCallerManagerTokenIfc;
using Halden::Tavro::Utils::SystemTimeHandler;

/// The jobs at work, from construction to stop().
class Service
{
public:
    Service(PeriodicCallerManager::ExecutionStrategy strategy, std::string const& name)
        : manager(std::make_shared<PeriodicCallerManager>(strategy, name))
        , systemTime(std::in_place, manager)
    {
        letSchedulerSleep();
        systemTime->initialize();
        for (Job& job : makeJobs(*systemTime, addresses))
        {
            shortestPeriod = std::min(shortestPeriod, job.period);
            JobRecord& record = records.emplace_back(std::move(job), Clock::now());
            tokens.push_back(manager->add([&record] { record.run(); }, record.period()));
        }
    }

    ~Service() { stop(); }

    void stop()
    {
        if (manager == nullptr)
        {
            return;
        }
        tokens.clear(); // from here on no job runs
        systemTime.reset();
        letSchedulerSleep(shortestPeriod);
        manager.reset();
    }

    std::list<JobRecord> const& jobs() const { return records; }

private:
    std::chrono::milliseconds shortestPeriod{std::chrono::hours(1)};
    Addresses addresses;
    std::list<JobRecord> records; // a list, for the jobs refer to its elements
    std::shared_ptr<PeriodicCallerManager> manager;
    std::optional<SystemTimeHandler> systemTime;
    std::vector<std::unique_ptr<PeriodicCallerManagerTokenIfc>> tokens;
};

/// A machine that is no device has no commands to ask; the log says so.
void showFirmware()
{
    Halden::Tavro::Utils::FirmwareVersionTavro firmware;
    firmware.init();
    auto const orUnknown = [](std::string const& value) { return value.empty() ? "unknown" : value; };
    std::cout << "firmware " << orUnknown(firmware.version()) << ", compatible id "
              << orUnknown(firmware.compatibleId()) << std::endl;
}

/// Shows the state once a second, on a terminal always in the same line.
void showUntil(Clock::time_point deadline, StopSignals const& signals, Service const& service)
{
    bool const onTerminal = isatty(STDOUT_FILENO) == 1;
    for (auto next = Clock::now() + 1s; !signals.waitUntil(std::min(next, deadline)) && next < deadline; next += 1s)
    {
        std::cout << (onTerminal ? "\r\033[K\033[?7l" : ""); // cut off where the terminal ends
        writeStatus(std::cout, service.jobs());
        std::cout << (onTerminal ? "\033[?7h" : "\n") << std::flush;
    }
    std::cout << (onTerminal ? "\n" : "");
}

/// Before any thread starts: XML is the work of one thread at a time.
std::optional<std::string> nameFrom(std::string const& description)
{
    try
    {
        return Halden::Tavro::Utils::XmlHelper().singleNodeText(description,
                                                                "/upnp:root/upnp:device/upnp:friendlyName");
    }
    catch (std::exception const& error)
    {
        std::cerr << "device_service: no name in " << description << ": " << error.what() << '\n';
        return std::nullopt;
    }
}

int run(Options const& options)
{
    std::ofstream timeline;
    if (options.timeline)
    {
        timeline.open(*options.timeline);
        if (!timeline)
        {
            std::cerr << "device_service: cannot write " << *options.timeline << '\n';
            return 2;
        }
    }
    if (options.record)
    {
        try
        {
            createRecording(*options.record);
        }
        catch (std::exception const& error)
        {
            std::cerr << "device_service: " << error.what() << '\n';
            return 2;
        }
    }

    Halden::Tavro::Log::LoggerProxy::instance().setThreshold(options.log);
    auto const name = nameFrom(options.description);
    if (!name)
    {
        return 2;
    }
    std::cout << *name << '\n' << std::flush;
    showFirmware();
    StopSignals const signals;
    auto const begin = Clock::now();
    Service service(options.strategy, *name);
    showUntil(begin + options.duration, signals, service);
    service.stop();
    auto const end = Clock::now(); // after the last run

    writeTable(std::cout, service.jobs());
    if (options.timeline)
    {
        writeTimeline(timeline, service.jobs(), begin, end);
        timeline.close();
    }
    if (options.record)
    {
        writeRecording(*options.record, service.jobs(), begin);
    }
    if (!timeline || !std::cout.flush())
    {
        std::cerr << "device_service: the report could not be written in full\n";
        return 1;
    }
    return 0;
}

}

int main(int argc, char** argv)
{
    auto const parsed = parseOptions(argc, argv);
    if (auto const* const status = std::get_if<ExitStatus>(&parsed))
    {
        return status->value;
    }
    try
    {
        return run(std::get<Options>(parsed));
    }
    catch (std::exception const& error)
    {
        std::cerr << "device_service: " << error.what() << '\n';
        return 1;
    }
}
