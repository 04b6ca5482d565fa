#include "time/SystemTimeHandlerFixture.h"

#include <gmock/gmock.h>

#include <cerrno>
#include <chrono>
#include <string>

namespace Halden::Tavro::Utils
{

namespace
{

using Log::Severity;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using namespace TestSupport;
using namespace std::chrono_literals;

using SystemTimeHandlerTest = SystemTimeHandlerFixture;

TEST_F(SystemTimeHandlerTest, ConstructionAsksNothing)
{
    EXPECT_FALSE(sut.hasAbsoluteTime());
    EXPECT_EQ(adjtimexDouble.count(), 0U);
    EXPECT_EQ(statDouble.count(), 0U);
    EXPECT_EQ(timerfdCreateDouble.count(), 0U);
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(SystemTimeHandlerTest, SynchronisedClockIsSeen)
{
    kernelStatus = STA_PLL;

    EXPECT_TRUE(sut.syncedByService());

    EXPECT_THAT(log.lines(), ElementsAre(isLine(Severity::Debug, "SystemTime", "Clock is synced.")));
}

TEST_F(SystemTimeHandlerTest, UnsynchronisedClockIsSeenWhateverElseTheStatusSays)
{
    kernelStatus = STA_UNSYNC | STA_PLL | STA_NANO;

    EXPECT_FALSE(sut.syncedByService());

    EXPECT_THAT(log.lines(), ElementsAre(isLine(Severity::Debug, "SystemTime", "Clock is not synced.")));
}

TEST_F(SystemTimeHandlerTest, StateOfTheClockBesidesTheStatusDoesNotCount)
{
    adjtimexDouble.replace(
        [](timex* query)
        {
            query->status = 0;
            return TIME_ERROR;
        });

    EXPECT_TRUE(sut.syncedByService());
}

TEST_F(SystemTimeHandlerTest, FailedQueryOfTheKernelCountsAsNotSynchronised)
{
    kernelStatus = 0;
    adjtimexDouble.failCall(1, -1, EFAULT);
    letLoggingChangeErrno();
    std::string const text = "Unable to determine if system clock is in sync. errno 14 (Bad address).";
    expectError(text);

    EXPECT_FALSE(sut.syncedByService());

    EXPECT_THAT(log.lines(), ElementsAre(isLine(Severity::Error, "SystemTime", text)));
}

TEST_F(SystemTimeHandlerTest, EveryNegativeAnswerOfTheKernelIsAFailure)
{
    kernelStatus = 0;
    adjtimexDouble.failCall(1, -2, EPERM);
    std::string const text = "Unable to determine if system clock is in sync. errno 1 (Operation not permitted).";
    expectError(text);

    EXPECT_FALSE(sut.syncedByService());

    EXPECT_THAT(log.lines(), ElementsAre(isLine(Severity::Error, "SystemTime", text)));
}

TEST_F(SystemTimeHandlerTest, FiveDevicesAreTriedInOrder)
{
    EXPECT_FALSE(sut.rtcValid());

    EXPECT_THAT(log.lines(), ElementsAre(isLine(Severity::Debug, "", "No RTC available in /dev/rtc0."),
                                         isLine(Severity::Debug, "", "No RTC available in /dev/rtc."),
                                         isLine(Severity::Debug, "", "No RTC available in /dev/misc/rtc."),
                                         isLine(Severity::Debug, "", "No RTC available in /dev/efirtc."),
                                         isLine(Severity::Debug, "", "No RTC available in /dev/misc/efirtc.")));
}

TEST_F(SystemTimeHandlerTest, DevicesAfterTheFirstValidOneAreNotTried)
{
    devices = {"/dev/rtc", "/dev/misc/rtc"};
    rtcOffset = 5s; // so that no tick of the system clock meanwhile makes it the faster one

    EXPECT_TRUE(sut.rtcValid());

    EXPECT_THAT(log.lines(), ElementsAre(isLine(Severity::Debug, "", "No RTC available in /dev/rtc0."),
                                         isLine(Severity::Debug, "", HasSubstr("slower than /dev/rtc."))));
    EXPECT_EQ(openDouble.count(), 1U);
}

TEST_F(SystemTimeHandlerTest, LastDeviceCountsAsWell)
{
    devices = {"/dev/misc/efirtc"};

    EXPECT_TRUE(sut.rtcValid());
}

TEST_F(SystemTimeHandlerTest, TimerIsArmedToBeCancelledOnly)
{
    EXPECT_EQ(sut.startSetClockDetection(), 0);

    EXPECT_THAT(timerfdCreateDouble.calls(), ElementsAre(std::make_tuple(CLOCK_REALTIME, TFD_NONBLOCK)));
    ASSERT_EQ(timerfdSettimeDouble.count(), 1U);
    auto const [descriptor, flags, spec, before] = timerfdSettimeDouble.calls()[0];
    EXPECT_EQ(descriptor, timer);
    EXPECT_EQ(flags, TFD_TIMER_ABSTIME | TFD_TIMER_CANCEL_ON_SET);
    EXPECT_EQ(before, nullptr);
    EXPECT_EQ(armedWith.it_value.tv_sec, 2147483647);
    EXPECT_EQ(armedWith.it_value.tv_nsec, 0);
    EXPECT_EQ(armedWith.it_interval.tv_sec, 0);
    EXPECT_EQ(armedWith.it_interval.tv_nsec, 0);
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(SystemTimeHandlerTest, TimerThatCannotBeMadeGivesTheNegatedErrnoWhateverLoggingDoes)
{
    timerfdCreateDouble.failCall(1, -1, EMFILE);
    letLoggingChangeErrno();
    std::string const text = "error creating timer to check for system time updates. errno 24 (Too many open files).";
    expectError(text);

    EXPECT_EQ(sut.startSetClockDetection(), -EMFILE);

    EXPECT_THAT(log.lines(), ElementsAre(isLine(Severity::Error, "SystemTime", text)));
    EXPECT_EQ(timerfdSettimeDouble.count(), 0U);
}

TEST_F(SystemTimeHandlerTest, TimerThatCannotBeArmedGivesOne)
{
    timerfdSettimeDouble.failCall(1, -1, EINVAL);

    EXPECT_EQ(sut.startSetClockDetection(), 1);
    EXPECT_EQ(errno, EINVAL);

    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(SystemTimeHandlerTest, SynchronisedClockTouchesNeitherClockDevicesNorTimer)
{
    kernelStatus = 0;

    sut.initialize();

    EXPECT_TRUE(sut.hasAbsoluteTime());
    EXPECT_THAT(log.lines(), ElementsAre(isLine(Severity::Debug, "SystemTime", "Clock is synced."),
                                         isLine(Severity::Info, "SystemTime",
                                                "System clock is valid. There will be no further time checks.")));
    EXPECT_EQ(statDouble.count(), 0U);
    EXPECT_EQ(timerfdCreateDouble.count(), 0U);
    EXPECT_EQ(manager->registered, 0);
}

TEST_F(SystemTimeHandlerTest, AgreeingClockDeviceMakesTheTimerUnnecessary)
{
    devices = {"/dev/rtc0"};

    sut.initialize();

    EXPECT_TRUE(sut.hasAbsoluteTime());
    EXPECT_EQ(
        log.count(isLine(Severity::Info, "SystemTime", "System clock is valid. There will be no further time checks.")),
        1U);
    EXPECT_EQ(timerfdCreateDouble.count(), 0U);
    EXPECT_EQ(manager->registered, 0);
}

TEST_F(SystemTimeHandlerTest, DoubtfulClockIsPolledEverySixtySeconds)
{
    sut.initialize();

    EXPECT_FALSE(sut.hasAbsoluteTime());
    EXPECT_EQ(timerfdSettimeDouble.count(), 1U);
    EXPECT_EQ(manager->registered, 1);
    EXPECT_EQ(manager->period.count(), 60.0);
    EXPECT_EQ(manager->destroyed, 0);
    EXPECT_THAT(log.lines(), SizeIs(6)); // the kernel's and those of five absent devices
}

TEST_F(SystemTimeHandlerTest, HandlerGivesUpWithoutATimer)
{
    timerfdCreateDouble.failCall(1, -1, EMFILE);
    letLoggingChangeErrno();
    std::string const text = "Failed to start a timer to detect when the clock is set. errno 24 (Too many open files).";
    expectError("error creating timer to check for system time updates. errno 24 (Too many open files).");
    expectError(text);

    sut.initialize();

    EXPECT_FALSE(sut.hasAbsoluteTime());
    EXPECT_EQ(manager->registered, 0);
    EXPECT_EQ(log.lines().back(), (LogLine{Severity::Error, "SystemTime", text}));
}

TEST_F(SystemTimeHandlerTest, HandlerGivesUpWhenTheTimerCannotBeArmed)
{
    timerfdSettimeDouble.failCall(1, -1, ECANCELED);
    letLoggingChangeErrno();
    std::string const text = "Failed to start a timer to detect when the clock is set. errno 125 (Operation canceled).";
    expectError(text);

    sut.initialize();

    EXPECT_FALSE(sut.hasAbsoluteTime());
    EXPECT_EQ(manager->registered, 0);
    EXPECT_EQ(log.count(isLine(Severity::Error, "SystemTime", text)), 1U);
}

TEST_F(SystemTimeHandlerTest, RefusalOfTheManagerReachesTheCaller)
{
    manager->duringAdd = [] { throw std::bad_weak_ptr(); };

    EXPECT_THROW(sut.initialize(), std::bad_weak_ptr);

    EXPECT_FALSE(sut.hasAbsoluteTime());
}

TEST_F(SystemTimeHandlerTest, SecondRegistrationDestroysTheFirstToken)
{
    sut.initialize();

    sut.initialize();

    EXPECT_EQ(manager->registered, 2);
    EXPECT_EQ(manager->destroyed, 1);
}

}

}
