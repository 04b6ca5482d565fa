#pragma once

#include <log/Logger.h>
#include <utils/CodeMonitor.h>
#include <utils/FirmwareVersionTavro.h>
#include <utils/PeriodicCallerManager.h>
#include <utils/SystemTimeHandler.h>

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

/// Reads a sensor ten times a second, reports the mean, and complains when the sensor is silent for ten seconds.
///
/// All that it needs of the device comes through interfaces, so that its tests need no device and no time.
class SensorService : private Halden::Tavro::Log::Logger
{
public:
    /// @return a reading, or nothing when the sensor does not answer
    using Sensor = std::function<std::optional<double>()>;

    /// The references outlive the service, and so does the sensor's function all that it refers to.
    SensorService(Halden::Tavro::Utils::PeriodicCallerManagerIfc& manager,
                  Halden::Tavro::Utils::SystemTimeHandlerIfc const& systemTime,
                  Halden::Tavro::Utils::FirmwareVersionIfc const& firmware, Sensor sensor);

    /// "firmware 1.2.3, absolute time, 600 readings, mean 21.50"
    std::string report() const;

    /// Crossed with each reading before it counts; for tests.
    Halden::Tavro::Utils::CodeMonitor readingArrived{"reading arrived"};

private:
    void measure();
    void watch();

    Halden::Tavro::Utils::SystemTimeHandlerIfc const& systemTime;
    Halden::Tavro::Utils::FirmwareVersionIfc const& firmware;
    Sensor const sensor;
    mutable std::mutex mutex;
    double sum{0};                          // guarded by mutex
    unsigned readings{0};                   // guarded by mutex
    std::optional<unsigned> readingsBefore; // at the last watch(), which alone uses it
    // Last, so that no function runs when the others are destroyed.
    std::unique_ptr<Halden::Tavro::Utils::PeriodicCallerManagerTokenIfc> const watching;
    std::unique_ptr<Halden::Tavro::Utils::PeriodicCallerManagerTokenIfc> const measuring;
};
