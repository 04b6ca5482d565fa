#pragma once

#include "support/CallDouble.h"
#include "support/LogCapture.h"

#include <gmock/gmock.h>

#include <sys/stat.h>
#include <sys/timerfd.h>
#include <sys/timex.h>
#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <ctime>
#include <set>
#include <string>
#include <vector>

namespace Halden::Tavro::TestSupport
{

/// What the doubles hand out; no descriptors of the process.
constexpr int timer = 4711;
constexpr int rtc = 4712;

using FileStatus = struct stat64;

extern CallDouble<int(timex*)> adjtimexDouble;
extern CallDouble<int(char const*, int, mode_t)> openDouble;
extern CallDouble<int(int, unsigned long, void*)> ioctlDouble;
extern CallDouble<int(int)> closeDouble;
extern CallDouble<time_t(std::tm*)> mktimeDouble;
extern CallDouble<int(int, int)> timerfdCreateDouble;
extern CallDouble<int(int, int, itimerspec const*, itimerspec*)> timerfdSettimeDouble;
extern CallDouble<ssize_t(int, void*, size_t)> readDouble;
extern CallDouble<int(char const*, FileStatus*)> statDouble;

/// The test runtime reads and closes as well: calls with other descriptors than this and that of the clock device go
/// straight to the system.
extern std::atomic<int> timerUnderTest;

/// A machine without synchronisation and without real-time clocks, whose timer has not been cancelled.
///
/// For test programs that list time/ClockFixture.cpp among their sources.
class ClockFixture : public testing::Test
{
protected:
    ClockFixture();
    ~ClockFixture() override;

    static void letReadFail(int error);

    /// The first clock device is there but does not answer. As in the kernel, it is busy from its opening to its
    /// closing.
    void letClockDeviceFail();

    /// That device is there but does not answer, and logging changes errno.
    void letClockDeviceNotAnswer();

    /// Lets the device be judged, which must find it unreadable and say so in one line, for a reason such as
    /// "13 (Permission denied)".
    void expectUnreadable(std::string const& device, std::string const& reason);

    /// From now on the timers are the kernel's.
    static void useRealTimers();

    /// A sink that logging leaves with another errno.
    void letLoggingChangeErrno();

    static std::chrono::seconds systemTime();

    LogCapture log;
    int kernelStatus{STA_UNSYNC};
    std::set<std::string> devices;
    std::chrono::seconds rtcOffset{0}; // of the devices' clocks, in local time
    itimerspec armedWith{};
    std::vector<std::string> events; // what is closed, and what a test adds

private:
    static void reset();
    int readRtc(void* reading) const;

    bool deviceHeld{false}; // by an opener
};

}
