// What surrounds the examples in the comments of the public headers.

#pragma once

#include <gmock/gmock.h>
#include <log/SpdlogSink.h>
#include <prometheus/registry.h>
#include <spdlog/sinks/rotating_file_sink.h>
#include <spdlog/sinks/syslog_sink.h>
#include <spdlog/spdlog.h>
#include <unistd.h>
#include <utils/Execute.h>
#include <utils/FirmwareVersionTavro.h>
#include <utils/Hdf5Library.h>
#include <utils/LocalIps.h>
#include <utils/PeriodicCaller.h>
#include <utils/Pipe.h>
#include <utils/RateLimited.h>
#include <utils/TempDir.h>
#include <utils/TempFile.h>
#include <utils/WaitSpinLock.h>
#include <utils/XmlHelper.h>
#include <utils/metrics/MeasuredManager.h>
#include <utils/testing/BarrierGuard.h>
#include <utils/testing/FirmwareVersionStub.h>
#include <utils/testing/LogCaptureGmock.h>
#include <utils/testing/ManualTimeManager.h>
#include <utils/testing/SystemTimeHandlerStub.h>

#include <H5Cpp.h>

#include <chrono>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

namespace Halden::Tavro::Utils
{

using namespace Log;
using namespace Metrics;
using namespace Testing;
using namespace std::chrono_literals;
using namespace testing;

struct SensorService
{
    explicit SensorService(std::shared_ptr<PeriodicCallerManagerIfc> manager);

    void start();
    void startMeasurement();

    CodeMonitor monitor;
};

extern SensorService service;
extern CodeMonitor& monitor;
extern LogCapture& log;
extern RateLimited lateness;
extern XmlHelper xml;
extern std::shared_ptr<PeriodicCallerManagerIfc> const manager;

extern std::chrono::milliseconds const stampOfLastSample;
extern std::istringstream const input;
extern std::string const data;
extern std::string const documentPath;
extern std::string const expression;
extern std::string const path;
extern std::vector<std::string> const arguments;
extern ExecutionResult result;
extern unsigned long long const sum;

void announce(IpAddress const& ip);
void readPressure();
void readSensors();
void report(std::string const& text);
void reportLateness();
void sendTimeStamps();
void toggleLed();
void use(std::string const& text);
void use(std::vector<std::string> const& texts);
void withdraw(IpAddress const& ip);

}
