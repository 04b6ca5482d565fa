#include "Jobs.h"

#include <cstdio>
#include <fstream>
#include <limits>
#include <memory>
#include <random>
#include <stdexcept>
#include <string_view>
#include <thread>

namespace DeviceService
{

namespace
{

using namespace std::chrono_literals;

constexpr char const* thermalZone = "/sys/class/thermal/thermal_zone0/temp";

template <typename Value>
std::string toText(char const* format, Value value)
{
    char text[64]{};
    static_cast<void>(std::snprintf(text, sizeof text, format, value));
    return text;
}

double firstNumberOf(char const* path)
{
    double number = 0;
    if (!(std::ifstream(path) >> number))
    {
        throw std::runtime_error(std::string("No number in ") + path);
    }
    return number;
}

std::string readLoad()
{
    return toText("%.2f", firstNumberOf("/proc/loadavg"));
}

std::string readMemory()
{
    std::ifstream file("/proc/meminfo");
    std::string key;
    double total = 0;
    for (double kibibytes = 0; file >> key >> kibibytes;)
    {
        if (key == "MemTotal:")
        {
            total = kibibytes;
        }
        if (key == "MemAvailable:" && total > 0)
        {
            return toText("%.0f %% free", 100 * kibibytes / total);
        }
        file.ignore(std::numeric_limits<std::streamsize>::max(), '\n');
    }
    throw std::runtime_error("No available memory in /proc/meminfo");
}

std::string readTemperature()
{
    return toText("%.1f C", firstNumberOf(thermalZone) / 1000);
}

std::string readUptime()
{
    return toText("%.0f s", firstNumberOf("/proc/uptime"));
}

/// Virtual machines have no thermal zone.
Job makeTemperatureJob()
{
    if (std::ifstream(thermalZone).good())
    {
        return {"temperature", 1s, readTemperature};
    }
    return {"uptime", 1s, readUptime};
}

/// A noisy pressure around 4 bar, smoothed by an exponential filter.
class PressureSensor
{
public:
    std::string sample()
    {
        constexpr double weightOfNew = 0.1;
        filtered += weightOfNew * (noise(generator) - filtered);
        return toText("%.2f bar", filtered);
    }

private:
    std::minstd_rand generator{1}; // NOLINT(cert-msc51-cpp): noise, no secret
    std::normal_distribution<double> noise{4.0, 0.5};
    double filtered{4.0};
};

/// Every third check of the link finds it down.
std::string checkLink(unsigned& checks)
{
    if (++checks % 3 == 0)
    {
        throw std::runtime_error("link down (as every third time, on purpose)");
    }
    return "up";
}

std::string upload(unsigned& uploads)
{
    std::this_thread::sleep_for(150ms); // a slow server
    return toText("%u sent", ++uploads);
}

}

std::vector<Job> makeJobs(Halden::Tavro::Utils::SystemTimeHandlerIfc const& systemTime, Addresses& addresses)
{
    auto const sensor = std::make_shared<PressureSensor>();
    return {
        {"pressure", 50ms, [sensor] { return sensor->sample(); }},
        {"load", 250ms, readLoad},
        {"memory", 500ms, readMemory},
        makeTemperatureJob(),
        {"clock", 1s, [&systemTime] { return systemTime.hasAbsoluteTime() ? "absolute" : "not trusted yet"; }},
        {"addresses", 1s, [&addresses] { return addresses.reading(); }},
        {"link", 400ms, [checks = 0U]() mutable { return checkLink(checks); }},
        {"upload", 900ms, [uploads = 0U]() mutable { return upload(uploads); }},
    };
}

}
