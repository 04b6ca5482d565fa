#include "SensorService.h"

#include <chrono>
#include <iomanip>
#include <sstream>
#include <utility>

using namespace Halden::Tavro;
using namespace std::chrono_literals;

SensorService::SensorService(Utils::PeriodicCallerManagerIfc& manager, Utils::SystemTimeHandlerIfc const& systemTime,
                             Utils::FirmwareVersionIfc const& firmware, Sensor sensor)
    : Log::Logger("SensorService", "", std::make_shared<Log::LoggerImpl>())
    , systemTime(systemTime)
    , firmware(firmware)
    , sensor(std::move(sensor))
    , watching(manager.add([this] { watch(); }, 10s))
    , measuring(manager.add([this] { measure(); }, 100ms))
{
}

std::string SensorService::report() const
{
    std::ostringstream text;
    text << "firmware " << firmware.version() << (systemTime.hasAbsoluteTime() ? ", absolute time, " : ", no time, ");
    std::lock_guard const lock(mutex);
    text << readings << " readings";
    if (readings > 0)
    {
        text << ", mean " << std::fixed << std::setprecision(2) << sum / readings;
    }
    return text.str();
}

void SensorService::measure()
{
    auto const reading = sensor();
    if (!reading)
    {
        return;
    }
    readingArrived.crossBarrier();
    std::lock_guard const lock(mutex);
    sum += *reading;
    ++readings;
}

void SensorService::watch()
{
    std::lock_guard const lock(mutex);
    if (readings == readingsBefore) // the first look has none before it
    {
        tavroDoLog(Log::Severity::Warning, "No reading for 10 s, %u so far", {}, readings);
    }
    readingsBefore = readings;
}
