#pragma once

#include <log/Logger.h>
#include <utils/Export.h>
#include <utils/PeriodicCallerManager.h>

#include <atomic>
#include <memory>
#include <string>

namespace Halden::Tavro::Utils
{

/// Whether a real-time clock agrees with the system clock: the device exists, can be read, rtc(4), and is less than
/// 30 s off.
///
/// The clock's reading counts as local time, in whole seconds, with the daylight-saving flag that the device gives: a
/// clock that keeps UTC never agrees where the time zone is another.
///
/// @throws std::filesystem::filesystem_error when the device's status cannot be told, unless it is just not there
///
/// Hazards of the exact build:
/// - A device that was opened and cannot be read is never closed. The kernel lets one opener at a time hold a clock, so
///   every later open of it answers EBUSY: the process loses one descriptor for each such clock, and keeps the clock
///   from itself, from other services and from hwclock(8) until it ends. On a device whose clock never answers, take
///   its node away.
/// - A file that is no clock costs a descriptor with every call.
HALDEN_CPPUTILS_EXPORT bool devRtcValid(std::string const& device);

/// Whether the system clock can be believed as absolute time, for devices that boot with a wrong one.
class HALDEN_CPPUTILS_EXPORT SystemTimeHandlerIfc
{
public:
    virtual ~SystemTimeHandlerIfc();

    virtual bool hasAbsoluteTime() const = 0;

    /// Finds out for the first time, and starts what is needed to find out later. To be called once.
    virtual void initialize() = 0;
};

/// Believes the system clock as soon as a service has synchronised it, a real-time clock agrees with it within 30 s, or
/// somebody sets it.
///
///     SystemTimeHandler systemTime(manager);
///     systemTime.initialize();
///     ...
///     if (systemTime.hasAbsoluteTime())
///
/// While nothing of that has happened, a function of the manager looks once a minute. Once the clock is believed this
/// ends for good, and so does the looking when the kernel's timer, which tells of the setting, cannot be made or read:
/// then the answer stays false. All failures are logged and none is thrown, but for those of devRtcValid(), of the
/// manager, and of allocations; they reach the caller of initialize() or, from a poll, the manager's log.
///
/// Threads: hasAbsoluteTime() may be called from any thread. initialize() and the destructor belong to the owner's
/// thread, while the first poll may run on a thread of the manager before initialize() has returned. The destructor
/// waits for a poll in progress, until the poll no longer holds the manager either: handler and manager may be two
/// locals, or the handler the manager's only owner.
///
/// Limits: every setting of the clock is believed, a wrong one too, and for good. The timer expires on 2038-01-19,
/// which costs one line at Error; the polls go on.
///
/// Hazards of the exact build:
/// - The timer's descriptor stays open for good when the clock was believed for another reason than that it was set,
///   when the timer cannot be armed, and when the handler is destroyed before any of this.
/// - A poll before initialize(), which derived classes can make, takes standard input for the timer: it waits where
///   nothing comes, and closes what it cannot read.
/// - What a real-time clock costs that does not answer, see devRtcValid().
class HALDEN_CPPUTILS_EXPORT SystemTimeHandler : public SystemTimeHandlerIfc, protected virtual Log::Logger
{
public:
    /// @param manager not null unless the clock is believed at once
    explicit SystemTimeHandler(std::shared_ptr<PeriodicCallerManagerIfc> manager);

    SystemTimeHandler(SystemTimeHandler const&) = delete;
    SystemTimeHandler& operator=(SystemTimeHandler const&) = delete;

    /// Ends the polling.
    ~SystemTimeHandler() override;

    bool hasAbsoluteTime() const override;
    void initialize() override;

protected:
    /// Whether the kernel's clock counts as synchronised, adjtimex(2); false when that cannot be told.
    bool syncedByService() const;

    /// Whether one of the usual real-time clock devices agrees, see devRtcValid(): /dev/rtc0, /dev/rtc, /dev/misc/rtc,
    /// /dev/efirtc, /dev/misc/efirtc. Tries no more after the first.
    bool rtcValid();

    /// Arms a timer that never expires but is cancelled when the clock is set, timerfd_create(2).
    ///
    /// @return 0, or anything else with the reason in errno
    int startSetClockDetection();

    /// One look; the manager's function. Before initialize() it finds the timer still running.
    void pollTimeStatus();

private:
    /// @param timer what clockSetTimerFd becomes
    void stopPolling(int timer);

    std::unique_ptr<PeriodicCallerManagerTokenIfc> pollToken; // null unless polling; guarded by a mutex of the source
    std::shared_ptr<PeriodicCallerManagerIfc> manager;
    std::atomic<bool> absoluteTime{false};
    int clockSetTimerFd{0}; // less than 0 once it was closed; written under the same mutex while there may be polls
};

}
