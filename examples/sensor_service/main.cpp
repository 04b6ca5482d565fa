// Reads a sensor, which is made up, and reports what it has found; its tests are the point of this example.
//
//     sensor_service --seconds 1

#include "../support/Program.h"
#include "SensorService.h"

#include <chrono>
#include <iostream>
#include <random>
#include <thread>

using namespace Halden::Tavro;

namespace
{

/// Around 21.5, with an answer that is missing now and then.
class MadeUpSensor
{
public:
    std::optional<double> operator()()
    {
        double const value = values(generator);
        return value < 20.5 ? std::nullopt : std::optional(value);
    }

private:
    std::minstd_rand generator{1}; // NOLINT(cert-msc51-cpp): noise, no secret
    std::normal_distribution<double> values{21.5, 0.5};
};

int serve(std::chrono::seconds duration)
{
    auto const manager = std::make_shared<Utils::PeriodicCallerManager>(
        Utils::PeriodicCallerManager::ExecutionStrategy::Sequential, "sensor");
    Utils::SystemTimeHandler systemTime(manager);
    systemTime.initialize();
    Utils::FirmwareVersionTavro firmware;
    firmware.init();
    SensorService const service(*manager, systemTime, firmware, MadeUpSensor());
    std::this_thread::sleep_for(duration);
    std::cout << service.report() << '\n';
    return 0; // with the hardened build; a service that may meet the exact one ends by std::_Exit
}

}

int main(int argc, char** argv) // NOLINT(bugprone-exception-escape): may end the program
{
    int seconds = 1;
    Program program("Reads a made-up sensor and reports what it has found.");
    program.option("--seconds", seconds, "Ends after that many seconds").range(1, 86400).showDefault();
    return program.run(argc, argv, [&] { return serve(std::chrono::seconds(seconds)); });
}
