#include <utils/SystemTimeHandler.h>

#include "support/TimeZone.h"
#include "time/ClockFixture.h"

#include <gmock/gmock.h>

#include <fcntl.h>
#include <linux/rtc.h>
#include <sys/ioctl.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <ctime>
#include <filesystem>
#include <string>
#include <vector>

namespace Halden::Tavro::TestSupport
{

namespace
{

CallDouble<std::chrono::system_clock::time_point()> systemClockDouble{"_ZNSt6chrono3_V212system_clock3nowEv"};

}

}

namespace Halden::Tavro::Utils
{

namespace
{

using Log::Severity;
using testing::ElementsAre;
using testing::IsEmpty;
using namespace TestSupport;
using namespace std::chrono_literals;

class RealTimeClockTest : public ClockFixture
{
protected:
    RealTimeClockTest() { systemClockDouble.reset(); }
    ~RealTimeClockTest() override { systemClockDouble.reset(); }

    static void setSystemClock(std::chrono::nanoseconds sinceEpoch)
    {
        using Clock = std::chrono::system_clock;
        systemClockDouble.replace(
            [sinceEpoch] { return Clock::time_point(std::chrono::duration_cast<Clock::duration>(sinceEpoch)); });
    }

    /// The verdict on a device while the system clock stays within one second.
    bool verdictWithinOneSecond()
    {
        for (int attempt = 0; attempt < 20; ++attempt)
        {
            log.clear();
            now = systemTime();
            bool const verdict = devRtcValid("/dev/rtc0");
            if (systemTime() == now)
            {
                return verdict;
            }
        }
        ADD_FAILURE() << "no verdict within one second";
        return false;
    }

    std::chrono::seconds now{0}; // of that verdict
};

TEST_F(RealTimeClockTest, AbsentDeviceIsNotOpened)
{
    EXPECT_FALSE(devRtcValid("/dev/rtc0"));

    EXPECT_THAT(log.lines(), ElementsAre(isLine(Severity::Debug, "", "No RTC available in /dev/rtc0.")));
    EXPECT_EQ(openDouble.count(), 0U);
}

TEST_F(RealTimeClockTest, DeviceBelowAFileCountsAsAbsent)
{
    EXPECT_FALSE(devRtcValid("/etc/passwd/clock"));

    EXPECT_THAT(log.lines(), ElementsAre(isLine(Severity::Debug, "", "No RTC available in /etc/passwd/clock.")));
}

TEST_F(RealTimeClockTest, WhatIsThereIsAskedWhateverItsKind)
{
    statDouble.replace(
        [](char const*, FileStatus* result)
        {
            result->st_mode = S_IFREG;
            return 0;
        });

    EXPECT_TRUE(devRtcValid("/dev/rtc0"));
}

TEST_F(RealTimeClockTest, StatusThatCannotBeToldThrows)
{
    std::string const tooLong = "/" + std::string(300, 'x');

    EXPECT_THROW(devRtcValid(tooLong), std::filesystem::filesystem_error);

    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(RealTimeClockTest, DeviceThatCannotBeOpenedIsNotValid)
{
    devices = {"/dev/rtc0"};
    openDouble.failCall(1, -1, EACCES);
    letLoggingChangeErrno();

    expectUnreadable("/dev/rtc0", "13 (Permission denied)");

    EXPECT_EQ(ioctlDouble.count(), 0U);
    EXPECT_EQ(closeDouble.count(), 0U);
}

TEST_F(RealTimeClockTest, DeviceIsOpenedReadOnlyAskedOnceAndClosed)
{
    devices = {"/dev/rtc0"};

    EXPECT_TRUE(devRtcValid("/dev/rtc0"));

    ASSERT_EQ(openDouble.count(), 1U);
    EXPECT_EQ(std::get<1>(openDouble.calls()[0]), O_RDONLY);
    ASSERT_EQ(ioctlDouble.count(), 1U);
    EXPECT_EQ(std::get<0>(ioctlDouble.calls()[0]), rtc);
    EXPECT_EQ(std::get<1>(ioctlDouble.calls()[0]), static_cast<unsigned long>(RTC_RD_TIME));
    EXPECT_THAT(events, ElementsAre("close 4712"));
}

TEST_F(RealTimeClockTest, DeviceMayHaveTheDescriptorZero)
{
    devices = {"/dev/rtc0"};
    timerUnderTest = 0;
    openDouble.replace([](char const*, int, mode_t) { return 0; });

    EXPECT_TRUE(devRtcValid("/dev/rtc0"));

    EXPECT_THAT(events, ElementsAre("close 0"));
}

// kept: services look for the text, which has no word for it
TEST_F(RealTimeClockTest, EqualClocksCountAsSlower)
{
    devices = {"/dev/rtc0"};

    EXPECT_TRUE(verdictWithinOneSecond());

    EXPECT_THAT(log.lines(), ElementsAre(isLine(Severity::Debug, "", "System time is 0 sec slower than /dev/rtc0.")));
}

TEST_F(RealTimeClockTest, TwentyNineSecondsOffIsValid)
{
    devices = {"/dev/rtc0"};

    rtcOffset = 29s;
    EXPECT_TRUE(verdictWithinOneSecond());
    EXPECT_THAT(log.lines(), ElementsAre(isLine(Severity::Debug, "", "System time is 29 sec slower than /dev/rtc0.")));

    rtcOffset = -29s;
    EXPECT_TRUE(verdictWithinOneSecond());
    EXPECT_THAT(log.lines(), ElementsAre(isLine(Severity::Debug, "", "System time is 29 sec faster than /dev/rtc0.")));
}

TEST_F(RealTimeClockTest, ThirtySecondsOffIsNotValid)
{
    devices = {"/dev/rtc0"};

    rtcOffset = 30s;
    EXPECT_FALSE(verdictWithinOneSecond());
    EXPECT_THAT(log.lines(), ElementsAre(isLine(Severity::Debug, "", "System time is 30 sec slower than /dev/rtc0.")));

    rtcOffset = -30s;
    EXPECT_FALSE(verdictWithinOneSecond());
    EXPECT_THAT(log.lines(), ElementsAre(isLine(Severity::Debug, "", "System time is 30 sec faster than /dev/rtc0.")));
}

TEST_F(RealTimeClockTest, PartOfASecondDoesNotCount)
{
    devices = {"/dev/rtc0"};
    mktimeDouble.replace([](std::tm*) { return time_t{1029}; });
    setSystemClock(1000s + 999ms);

    EXPECT_TRUE(devRtcValid("/dev/rtc0"));

    EXPECT_THAT(log.lines(), ElementsAre(isLine(Severity::Debug, "", "System time is 29 sec slower than /dev/rtc0.")));
}

// kept: seconds are cut towards 1970, as everywhere in this library
TEST_F(RealTimeClockTest, PartOfASecondBefore1970DoesNotCountEither)
{
    devices = {"/dev/rtc0"};
    mktimeDouble.replace([](std::tm*) { return time_t{29}; });
    setSystemClock(-999ms);

    EXPECT_TRUE(devRtcValid("/dev/rtc0"));

    EXPECT_THAT(log.lines(), ElementsAre(isLine(Severity::Debug, "", "System time is 29 sec slower than /dev/rtc0.")));
}

TEST_F(RealTimeClockTest, SystemClockIsReadOnceTheDeviceIsClosed)
{
    devices = {"/dev/rtc0"};
    ioctlDouble.replace([](int, unsigned long, void*) { return 0; });
    systemClockDouble.replace(
        [this]
        {
            events.emplace_back("system clock");
            return systemClockDouble.passOn();
        });
    std::vector<std::string> before;
    mktimeDouble.replace(
        [&](std::tm*)
        {
            before = events;
            return time_t{0};
        });

    EXPECT_FALSE(devRtcValid("/dev/rtc0"));

    EXPECT_THAT(before, ElementsAre("close 4712", "system clock"));
}

// kept: devices set their clock chip to local time
TEST_F(RealTimeClockTest, DeviceReadingCountsAsLocalTime)
{
    devices = {"/dev/rtc0"};
    TimeZone zone;
    zone.set("XYZ-9");

    EXPECT_TRUE(verdictWithinOneSecond());

    rtcOffset = -9h; // in UTC
    EXPECT_FALSE(verdictWithinOneSecond());
}

TEST_F(RealTimeClockTest, EveryFieldOfTheReadingIsConverted)
{
    devices = {"/dev/rtc0"};
    ioctlDouble.replace(
        [](int, unsigned long, void* reading)
        {
            *static_cast<rtc_time*>(reading) = {1, 2, 3, 4, 5, 6, 7, 8, 9};
            return 0;
        });
    std::tm seen{};
    mktimeDouble.replace(
        [&seen](std::tm* time)
        {
            seen = *time;
            return time_t{0};
        });

    EXPECT_FALSE(devRtcValid("/dev/rtc0"));

    EXPECT_EQ(seen.tm_sec, 1);
    EXPECT_EQ(seen.tm_min, 2);
    EXPECT_EQ(seen.tm_hour, 3);
    EXPECT_EQ(seen.tm_mday, 4);
    EXPECT_EQ(seen.tm_mon, 5);
    EXPECT_EQ(seen.tm_year, 6);
    EXPECT_EQ(seen.tm_wday, 7);
    EXPECT_EQ(seen.tm_yday, 8);
    EXPECT_EQ(seen.tm_isdst, 9);
}

TEST_F(RealTimeClockTest, ReadingThatCannotBeConvertedIsNotValid)
{
    devices = {"/dev/rtc0"};
    mktimeDouble.replace([](std::tm*) { return time_t{-1}; });

    EXPECT_FALSE(verdictWithinOneSecond());

    EXPECT_THAT(log.lines(), ElementsAre(isLine(Severity::Debug, "",
                                                "System time is " + std::to_string(static_cast<int>(now.count() + 1)) +
                                                    " sec faster than /dev/rtc0.")));
}

// kept: the text has an int for the distance, and stays as it is
TEST_F(RealTimeClockTest, DistanceIsJudgedBeforeItIsCutToAnInt)
{
    if constexpr (sizeof(time_t) < sizeof(std::int64_t))
    {
        GTEST_SKIP() << "time_t of this system holds no such distance";
    }
    devices = {"/dev/rtc0"};
    mktimeDouble.replace([this](std::tm*) { return static_cast<time_t>(now.count() + (std::int64_t{1} << 32) + 5); });

    EXPECT_FALSE(verdictWithinOneSecond());

    EXPECT_THAT(log.lines(), ElementsAre(isLine(Severity::Debug, "", "System time is 5 sec slower than /dev/rtc0.")));
}

}

}

// Stands in for the standard library's, in the program as in the shared libraries it uses.
std::chrono::system_clock::time_point std::chrono::system_clock::now() noexcept // NOLINT(cert-dcl58-cpp): the double
{
    return Halden::Tavro::TestSupport::systemClockDouble();
}
