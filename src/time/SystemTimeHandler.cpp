#include <utils/SystemTimeHandler.h>

#include "build/Hardened.h"
#include "log/LogErrno.h"

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

// Instead of a timer's descriptor:
constexpr int closedTimer = -1;  // closed after a poll, or never made; a later poll reads it all the same, and fails
constexpr int unarmedTimer = -2; // hardened build: not armed yet, or no longer needed; polls find it still running

using Token = std::unique_ptr<PeriodicCallerManagerTokenIfc>;

/// The first poll may end the polling while the owner still stores the token, the last one while the owner destroys the
/// handler. One mutex for all handlers will do: it is held only to move a token, a few times in a handler's life.
std::mutex tokenMutex;

/// Shared by the polls that destroy their own tokens. Taken before tokenMutex.
std::shared_mutex tokenEnd;

/// Takes the token away from the polls, and waits for a poll that is destroying it already: through the token that poll
/// holds the manager, and must not be the last to do so, as no manager can end on a thread of its own.
///
/// @return the token, to be destroyed without the locks, as that waits for a poll in progress
Token takeToken(Token& pollToken)
{
    Token token;
    std::lock_guard const end(tokenEnd);
    std::lock_guard const lock(tokenMutex);
    token.swap(pollToken);
    return token;
}

/// @return errno, or 0 when there was something to read
int readTimer(int timer, std::array<char, 10>& buffer)
{
    if (timer == unarmedTimer)
    {
        return EAGAIN;
    }
    return read(timer, buffer.data(), buffer.size()) < 0 ? errno : 0;
}

/// Leaves errno alone.
void closeTimer(int& timer)
{
    int const error = errno;
    if (timer >= 0)
    {
        close(timer);
    }
    timer = unarmedTimer;
    errno = error;
}

}

SystemTimeHandlerIfc::~SystemTimeHandlerIfc() = default;

SystemTimeHandler::SystemTimeHandler(std::shared_ptr<PeriodicCallerManagerIfc> manager)
    : Log::Logger("SystemTime", "", std::make_shared<Log::LoggerImpl>())
    , manager(std::move(manager))
    // kept: [poll-before-initialize] 0, so a poll before initialize() reads standard input
    , clockSetTimerFd(hardened ? unarmedTimer : 0)
{
}

SystemTimeHandler::~SystemTimeHandler()
{
    Token token = takeToken(pollToken);
    manager.reset();
    token.reset();
    if constexpr (hardened)
    {
        closeTimer(clockSetTimerFd);
    }
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
        TAVRO_LOG_ERRNO_TO(*this, "Failed to start a timer to detect when the clock is set. errno %d (%s).");
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
        TAVRO_LOG_ERRNO_TO(*this, "Unable to determine if system clock is in sync. errno %d (%s).");
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
    if constexpr (hardened) // an earlier call may have left a token and a timer
    {
        takeToken(pollToken).reset();
        closeTimer(clockSetTimerFd);
    }
    clockSetTimerFd = timerfd_create(CLOCK_REALTIME, TFD_NONBLOCK);
    if (clockSetTimerFd < 0)
    {
        int const error = errno;
        TAVRO_LOG_ERRNO_TO(*this, "error creating timer to check for system time updates. errno %d (%s).");
        return -error;
    }
    itimerspec spec{};
    spec.it_value.tv_sec = farFuture;
    int const result = timerfd_settime(clockSetTimerFd, TFD_TIMER_ABSTIME | TFD_TIMER_CANCEL_ON_SET, &spec, nullptr);
    if (hardened && result < 0)
    {
        closeTimer(clockSetTimerFd);
    }
    return -result;
}

void SystemTimeHandler::pollTimeStatus()
{
    absoluteTime = syncedByService() || rtcValid();

    int timer = clockSetTimerFd;
    std::array<char, 10> buffer{};
    int const error = readTimer(timer, buffer);
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
        stopPolling(closedTimer);
        return;
    case EAGAIN:
        TAVRO_LOG_TO(*this, Log::Severity::Trace, "Timer still running: Time has not been set yet.");
        break;
    default:
        TAVRO_LOG_TO(*this, Log::Severity::Error, "Error accessing clock set timer: Stop polling. errno %d (%s).",
                     error, strerror(error));
        stopPolling(closedTimer);
        close(timer);
        return;
    }
    if (absoluteTime)
    {
        if constexpr (hardened)
        {
            closeTimer(timer);
        }
        // kept: [timer-left-open] in the exact build the timer stays open, so a later poll finds it still running
        stopPolling(timer);
    }
}

/// A poll's last access to the handler, whose destructor waits for nothing once the token is gone.
void SystemTimeHandler::stopPolling(int timer)
{
    std::shared_lock const end(tokenEnd);
    Token token; // destroyed without tokenMutex: it takes those of the manager
    std::lock_guard const lock(tokenMutex);
    token.swap(pollToken);
    clockSetTimerFd = timer;
}

}
