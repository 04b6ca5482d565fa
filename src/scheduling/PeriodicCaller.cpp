#include <utils/PeriodicCaller.h>

#include "log/Log.h"

#include <algorithm>
#include <exception>
#include <stdexcept>
#include <utility>

namespace Halden::Tavro::Utils
{

namespace
{

/// Now plus this still fits the clock, also the 32-bit target's.
constexpr std::chrono::microseconds longestPause = std::chrono::seconds(1 << 30);

}

PeriodicCaller::PeriodicCaller(std::chrono::microseconds period, std::string name,
                               Callback const& callback) // NOLINT(modernize-pass-by-value): declared so
    : Log::Logger("Halden::Tavro::Utils::PeriodicCaller '" + name + "'", "", std::make_shared<Log::LoggerImpl>())
    , callback(callback)
    , name(std::move(name))
    , period(period)
{
    LogFacade::write(*this, Log::Severity::Debug, "Period set to " + std::to_string(period.count()) + "us");
}

PeriodicCaller::~PeriodicCaller()
{
    TAVRO_LOG_TO(*this, Log::Severity::Debug, "+destructor");
    stop();
}

void PeriodicCaller::start()
{
    TAVRO_LOG_TO(*this, Log::Severity::Debug, "+start()");
    std::lock_guard const lock(mutex);
    if (thread != nullptr)
    {
        throw std::runtime_error("PeriodicCaller is already started. Name = '" + name + "'");
    }
    running = true;
    thread = std::make_unique<std::thread>(&PeriodicCaller::periodicCallerThread, this);
    TAVRO_LOG_TO(*this, Log::Severity::Debug, "-start()");
}

void PeriodicCaller::stop()
{
    TAVRO_LOG_TO(*this, Log::Severity::Debug, "+stop()");
    if (thread != nullptr)
    {
        TAVRO_LOG_TO(*this, Log::Severity::Trace, "~stop: stopping the periodic caller thread");
        {
            std::lock_guard const lock(mutex);
            running = false;
        }
        wakeup.notify_one();
        thread->join();
        thread.reset();
    }
    TAVRO_LOG_TO(*this, Log::Severity::Debug, "-stop()");
}

void PeriodicCaller::periodicCallerThread()
{
    TAVRO_LOG_TO(*this, Log::Severity::Debug, "+periodicCallerThread(name = %s)", name.c_str());
    auto const pause = std::clamp(period, std::chrono::microseconds::zero(), longestPause);
    auto last = std::chrono::system_clock::now();
    while (running)
    {
        std::unique_lock lock(mutex);
        if (wakeup.wait_for(lock, pause, [this] { return !running; }))
        {
            break;
        }
        try
        {
            callback(std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::system_clock::now() - last));
        }
        catch (std::exception const& exception)
        {
            TAVRO_LOG_TO(*this, Log::Severity::Critical, "PeriodicCaller thread stop because of exception. What: %s",
                         exception.what());
            break;
        }
        last = std::chrono::system_clock::now();
    }
    TAVRO_LOG_TO(*this, Log::Severity::Debug, "-periodicCallerThread(name = %s)", name.c_str());
}

}
