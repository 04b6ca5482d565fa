#include "time/ClockFixture.h"

#include <utils/SystemTimeHandler.h>

#include <linux/rtc.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <string_view>
#include <utility>

namespace Halden::Tavro::TestSupport
{

namespace
{

/// Without it, opening and looking go straight to the system.
std::atomic<bool> devicesUnderTest{false};

bool isDevice(char const* path)
{
    std::string_view const text(path);
    return devicesUnderTest && text.rfind("/dev/", 0) == 0 && text.find("rtc") != std::string_view::npos;
}

bool isUnderTest(int descriptor)
{
    return descriptor == rtc || (descriptor >= 0 && descriptor == timerUnderTest);
}

}

std::atomic<int> timerUnderTest{-1};
CallDouble<int(timex*)> adjtimexDouble{"adjtimex"};
CallDouble<int(char const*, int, mode_t)> openDouble{"open"};
CallDouble<int(int, unsigned long, void*)> ioctlDouble{"ioctl"};
CallDouble<int(int)> closeDouble{"close"};
CallDouble<time_t(std::tm*)> mktimeDouble{"mktime"};
CallDouble<int(int, int)> timerfdCreateDouble{"timerfd_create"};
CallDouble<int(int, int, itimerspec const*, itimerspec*)> timerfdSettimeDouble{"timerfd_settime"};
CallDouble<ssize_t(int, void*, size_t)> readDouble{"read"};
CallDouble<int(char const*, FileStatus*)> statDouble{"stat64"};

ClockFixture::ClockFixture()
{
    reset();
    adjtimexDouble.replace(
        [this](timex* query)
        {
            EXPECT_EQ(query->modes, 0U);
            query->status = kernelStatus;
            return TIME_ERROR;
        });
    statDouble.replace(
        [this](char const* path, FileStatus* result)
        {
            result->st_mode = S_IFCHR;
            errno = ENOENT;
            return devices.count(path) > 0 ? 0 : -1;
        });
    openDouble.replace([](char const*, int, mode_t) { return rtc; });
    ioctlDouble.replace([this](int, unsigned long, void* reading) { return readRtc(reading); });
    closeDouble.replace(
        [this](int descriptor)
        {
            events.push_back("close " + std::to_string(descriptor));
            return 0;
        });
    timerfdCreateDouble.replace([](int, int) { return timer; });
    timerfdSettimeDouble.replace(
        [this](int, int, itimerspec const* spec, itimerspec*)
        {
            armedWith = *spec;
            return 0;
        });
    letReadFail(EAGAIN);
    timerUnderTest = timer;
    devicesUnderTest = true;
}

ClockFixture::~ClockFixture()
{
    devicesUnderTest = false;
    timerUnderTest = -1;
    reset();
}

void ClockFixture::letReadFail(int error)
{
    readDouble.replace(
        [error](int, void*, size_t)
        {
            errno = error;
            return ssize_t{-1};
        });
}

void ClockFixture::letClockDeviceFail()
{
    devices = {"/dev/rtc0"};
    openDouble.replace(
        [this](char const*, int, mode_t)
        {
            errno = EBUSY;
            return std::exchange(deviceHeld, true) ? -1 : rtc;
        });
    ioctlDouble.replace(
        [](int, unsigned long, void*)
        {
            errno = EINVAL;
            return -1;
        });
    closeDouble.replace(
        [this](int descriptor)
        {
            deviceHeld = deviceHeld && descriptor != rtc;
            events.push_back("close " + std::to_string(descriptor));
            return 0;
        });
}

void ClockFixture::letClockDeviceNotAnswer()
{
    devices = {"/dev/rtc0"};
    ioctlDouble.failCall(1, -1, EINVAL);
    letLoggingChangeErrno();
}

void ClockFixture::expectUnreadable(std::string const& device, std::string const& reason)
{
    auto const line = isLine(Log::Severity::Error, "", "Reading " + device + " failed with errno " + reason);
    log.expect(line);

    EXPECT_FALSE(Utils::devRtcValid(device));

    EXPECT_THAT(log.lines(), testing::ElementsAre(line));
}

void ClockFixture::useRealTimers()
{
    timerfdCreateDouble.reset();
    timerfdSettimeDouble.reset();
    timerUnderTest = -1;
}

void ClockFixture::letLoggingChangeErrno()
{
    log.onLine([](LogLine const&) { errno = 0; });
}

std::chrono::seconds ClockFixture::systemTime()
{
    return std::chrono::duration_cast<std::chrono::seconds>(std::chrono::system_clock::now().time_since_epoch());
}

void ClockFixture::reset()
{
    adjtimexDouble.reset();
    openDouble.reset();
    ioctlDouble.reset();
    closeDouble.reset();
    mktimeDouble.reset();
    timerfdCreateDouble.reset();
    timerfdSettimeDouble.reset();
    readDouble.reset();
    statDouble.reset();
}

int ClockFixture::readRtc(void* reading) const
{
    auto const time = static_cast<time_t>((systemTime() + rtcOffset).count());
    std::tm parts{};
    tzset();
    localtime_r(&time, &parts);
    *static_cast<rtc_time*>(reading) = {parts.tm_sec,  parts.tm_min,  parts.tm_hour, parts.tm_mday, parts.tm_mon,
                                        parts.tm_year, parts.tm_wday, parts.tm_yday, parts.tm_isdst};
    return 0;
}

}

using namespace Halden::Tavro::TestSupport;

// Outside of the namespace, for only there do the headers' other names for wide times take hold.
extern "C"
{

    int adjtimex(timex* query) noexcept
    {
        return adjtimexDouble(query);
    }

    int openOfTest(char const* path, int flags, mode_t mode)
    {
        return isDevice(path) ? openDouble(path, flags, mode)
                              : systemFunction<int (*)(char const*, int, ...)>("open")(path, flags, mode);
    }

    int ioctlOfTest(int descriptor, unsigned long request, void* argument) noexcept
    {
        return isUnderTest(descriptor)
                   ? ioctlDouble(descriptor, request, argument)
                   : systemFunction<int (*)(int, unsigned long, ...)>("ioctl")(descriptor, request, argument);
    }

    int close(int descriptor)
    {
        return isUnderTest(descriptor) ? closeDouble(descriptor) : systemFunction<int (*)(int)>("close")(descriptor);
    }

    time_t mktime(std::tm* time) noexcept
    {
        return mktimeDouble(time);
    }

    int timerfd_create(int clock, int flags) noexcept
    {
        return timerfdCreateDouble(clock, flags);
    }

    int timerfd_settime(int descriptor, int flags, itimerspec const* spec, itimerspec* before) noexcept
    {
        return timerfdSettimeDouble(descriptor, flags, spec, before);
    }

    ssize_t read(int descriptor, void* buffer, size_t size)
    {
        return isUnderTest(descriptor)
                   ? readDouble(descriptor, buffer, size)
                   : systemFunction<ssize_t (*)(int, void*, size_t)>("read")(descriptor, buffer, size);
    }

    int statOfTest(char const* path, FileStatus* result) noexcept
    {
        return isDevice(path) ? statDouble(path, result) : statDouble.passOn(path, result);
    }
}
HALDEN_DOUBLE(open, openOfTest)
HALDEN_DOUBLE(ioctl, ioctlOfTest)
HALDEN_DOUBLE(stat64, statOfTest)
