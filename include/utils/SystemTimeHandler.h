#pragma once

#include <log/Logger.h>
#include <utils/Export.h>
#include <utils/PeriodicCallerManager.h>

#include <atomic>
#include <memory>
#include <string>

namespace Halden::Tavro::Utils
{

/// Whether a real-time clock agrees with the system clock: its device exists, can be read, rtc(4), and is less than
/// 30 s off.
///
/// The reading counts as local time, in whole seconds, with the daylight-saving flag that the device gives. A clock
/// that keeps UTC therefore agrees only where the time zone is UTC.
///
/// Threads: any.
///
/// @throws std::filesystem::filesystem_error when the device's status cannot be told, unless it is just not there
///
/// Hazards of the exact build:
/// - A clock that was opened and cannot be read stays open: it costs the process a descriptor. As the kernel lets one
///   opener at a time hold a clock, every later open answers EBUSY, for this process, other services and hwclock(8),
///   until the process ends. Where a device's clock never answers, remove its node.
/// - A file that is not a clock costs a descriptor with every call.
HALDEN_CPPUTILS_EXPORT bool devRtcValid(std::string const& device);

/// Whether the system clock can be believed as absolute time, for devices that boot with a wrong one.
class HALDEN_CPPUTILS_EXPORT SystemTimeHandlerIfc
{
public:
    virtual ~SystemTimeHandlerIfc();

    /// Whether the clock is believed.
    virtual bool hasAbsoluteTime() const = 0;

    /// Finds out for the first time, and starts what is needed to find out later. To be called once.
    virtual void initialize() = 0;
};

/// Believes the system clock as soon as a service has synchronised it, a real-time clock agrees with it, or somebody
/// sets it.
///
///     SystemTimeHandler systemTime(manager);
///     systemTime.initialize();
///     if (systemTime.hasAbsoluteTime()) // and again later
///     {
///         sendTimeStamps();
///     }
///
/// | Reason to believe it          | How it shows                                                   |
/// |-------------------------------|----------------------------------------------------------------|
/// | a service has synchronised it | in the kernel's status, adjtimex(2)                            |
/// | a real-time clock agrees      | by devRtcValid(), for one of five usual devices                |
/// | somebody has set it           | the kernel has cancelled a timer for that, timerfd_create(2)   |
///
/// chrony tells the kernel only where it is configured with `rtcsync`. A suspend counts as a setting: the kernel
/// cancels the timer then, too.
///
/// Until then a function of the manager polls once a minute. Once the clock is believed, the polling ends for good.
///
/// When the timer cannot be made, there is no polling; when it cannot be read, the polling ends. The answer then stays
/// what it is. Failures are logged and not thrown, except those of devRtcValid(), of the manager and of allocations:
/// these reach the caller of initialize() or, out of a poll, the manager's log.
///
/// Threads: hasAbsoluteTime() may be called from any thread. initialize() and the destructor belong to the owner's
/// thread; the first poll may run on a thread of the manager before initialize() returns. The destructor waits for a
/// poll in progress, until that no longer holds the manager either. So handler and manager may be two locals, or the
/// handler the manager's only owner.
///
/// Limits:
/// - Every setting of the clock is believed, a wrong one too, and for good.
/// - The timer expires on 2038-01-19. That costs one line at Error, and the polling goes on.
///
/// Hazards of the exact build:
/// - The timer's descriptor stays open for good when the clock is believed for another reason than that it was set,
///   when the timer cannot be armed, and when the handler is destroyed before any of this.
/// - A poll before initialize(), which derived classes can make, takes standard input for the timer: it waits where
///   nothing comes, and closes what it cannot read.
/// - A real-time clock that does not answer costs what devRtcValid() says.
class HALDEN_CPPUTILS_EXPORT SystemTimeHandler : public SystemTimeHandlerIfc, protected virtual Log::Logger
{
public:
    /// @param manager calls the polls; not null; not used when the clock is believed at once
    explicit SystemTimeHandler(std::shared_ptr<PeriodicCallerManagerIfc> manager);

    SystemTimeHandler(SystemTimeHandler const&) = delete;
    SystemTimeHandler& operator=(SystemTimeHandler const&) = delete;

    /// Ends the polling.
    ~SystemTimeHandler() override;

    /// Never goes back to false once the polling has ended.
    bool hasAbsoluteTime() const override;

    void initialize() override;

protected:
    /// Whether the kernel's clock counts as synchronised, adjtimex(2); false when that cannot be told.
    bool syncedByService() const;

    /// Whether one of /dev/rtc0, /dev/rtc, /dev/misc/rtc, /dev/efirtc and /dev/misc/efirtc agrees, see devRtcValid().
    /// They are tried in this order, up to the first that does.
    bool rtcValid();

    /// Arms a timer that never expires but is cancelled when the clock is set, timerfd_create(2).
    ///
    /// @return 0, or anything else with the reason in errno
    int startSetClockDetection();

    /// One poll: the manager's function. Decides anew, also when a derived class calls it after the polling has ended.
    /// In the hardened build, one before initialize() finds the timer still running.
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
