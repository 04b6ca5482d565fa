#include <utils/SystemTimeHandler.h>

#include "log/Log.h"

#include <sys/timerfd.h>
#include <sys/timex.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <mutex>
#include <shared_mutex>
#include <utility>

namespace Halden::Tavro::Utils
{

namespace
{

constexpr std::array rtcDevices = {"/dev/rtc0", "/dev/rtc", "/dev/misc/rtc", "/dev/efirtc", "/dev/misc/efirtc"};
constexpr std::chrono::duration<double> pollPeriod(60.0);
constexpr time_t farFuture = 2147483647; // the last second that 32 bits hold, in 2038

/// The first poll may end the polling while the owner still stores the token, the last one while the owner destroys the
/// handler. One mutex for all handlers will do: it is held only to move a token, a few times in a handler's life.
std::mutex tokenMutex;

/// Shared by the polls that destroy their own tokens; tokenMutex is taken behind it.
std::shared_mutex tokenEnd;

}

SystemTimeHandlerIfc::~SystemTimeHandlerIfc() = default;

SystemTimeHandler::SystemTimeHandler(std::shared_ptr<PeriodicCallerManagerIfc> manager)
    : Log::Logger("SystemTime", "", std::make_shared<Log::LoggerImpl>())
    , manager(std::move(manager))
{
}

SystemTimeHandler::~SystemTimeHandler()
{
    std::unique_ptr<PeriodicCallerManagerTokenIfc> token;
    {
        // Waits for a poll that destroys its own token, and with it holds the manager: it must not be the last to do
        // so, for no manager can end on a thread of its own.
        std::lock_guard const end(tokenEnd);
        std::lock_guard const lock(tokenMutex);
        token.swap(pollToken);
    }
    manager.reset();
    token.reset(); // without the locks, as it waits for a poll
}

bool SystemTimeHandler::hasAbsoluteTime() const
{
    return absoluteTime;
}

void SystemTimeHandler::initialize()
{
    absoluteTime = syncedByService() || rtcValid();
    if (absoluteTime)
    {
        TAVRO_LOG_TO(*this, Log::Severity::Info, "System clock is valid. There will be no further time checks.");
        return;
    }
    if (startSetClockDetection() != 0)
    {
        int const error = errno;
        TAVRO_LOG_TO(*this, Log::Severity::Error,
                     "Failed to start a timer to detect when the clock is set. errno %d (%s).", error, strerror(error));
        return;
    }
    auto token = manager->add([this] { pollTimeStatus(); }, pollPeriod); // what is left in it goes without the lock
    std::lock_guard const lock(tokenMutex);
    if (!absoluteTime && clockSetTimerFd >= 0) // else the first poll has ended the polling before add returned
    {
        pollToken.swap(token);
    }
}

bool SystemTimeHandler::syncedByService() const
{
    timex query{}; // modes 0: changes nothing
    if (adjtimex(&query) < 0)
    {
        int const error = errno;
        TAVRO_LOG_TO(*this, Log::Severity::Error, "Unable to determine if system clock is in sync. errno %d (%s).",
                     error, strerror(error));
        return false;
    }
    bool const synced = (query.status & STA_UNSYNC) == 0;
    TAVRO_LOG_TO(*this, Log::Severity::Debug, "Clock is %ssynced.", synced ? "" : "not ");
    return synced;
}

bool SystemTimeHandler::rtcValid()
{
    return std::any_of(rtcDevices.begin(), rtcDevices.end(), devRtcValid);
}

int SystemTimeHandler::startSetClockDetection()
{
    clockSetTimerFd = timerfd_create(CLOCK_REALTIME, TFD_NONBLOCK);
    if (clockSetTimerFd < 0)
    {
        int const error = errno;
        TAVRO_LOG_TO(*this, Log::Severity::Error,
                     "error creating timer to check for system time updates. errno %d (%s).", error, strerror(error));
        errno = error; // for the caller, whatever logging made of it
        return -error;
    }
    itimerspec spec{};
    spec.it_value.tv_sec = farFuture;
    return -timerfd_settime(clockSetTimerFd, TFD_TIMER_ABSTIME | TFD_TIMER_CANCEL_ON_SET, &spec, nullptr);
}

void SystemTimeHandler::pollTimeStatus()
{
    absoluteTime = syncedByService() || rtcValid();

    int const timer = clockSetTimerFd;
    std::array<char, 10> buffer{};
    int const error = read(timer, buffer.data(), buffer.size()) < 0 ? errno : 0;
    switch (error)
    {
    case 0:
        TAVRO_LOG_TO(*this, Log::Severity::Error, "Reading timer file descriptor succeeded unexpectedly: %s",
                     std::string(buffer.data(), buffer.size()).c_str());
        break;
    case ECANCELED:
        TAVRO_LOG_TO(*this, Log::Severity::Info, "Clock time was set.");
        absoluteTime = true;
        close(timer);
        break;
    case EAGAIN:
        TAVRO_LOG_TO(*this, Log::Severity::Trace, "Timer still running: Time has not been set yet.");
        break;
    default:
        TAVRO_LOG_TO(*this, Log::Severity::Error, "Error accessing clock set timer: Stop polling. errno %d (%s).",
                     error, strerror(error));
        stopPolling(-1);
        close(timer);
        return;
    }
    if (absoluteTime)
    {
        stopPolling(error == ECANCELED ? -1 : timer); // kept: the timer stays open
    }
}

/// A poll's last access to the handler, whose destructor waits for nothing once the token is gone.
void SystemTimeHandler::stopPolling(int openTimer)
{
    std::shared_lock const end(tokenEnd);
    std::unique_ptr<PeriodicCallerManagerTokenIfc> token; // destroyed without tokenMutex: it takes those of the manager
    std::lock_guard const lock(tokenMutex);
    token.swap(pollToken);
    clockSetTimerFd = openTimer;
}

}
