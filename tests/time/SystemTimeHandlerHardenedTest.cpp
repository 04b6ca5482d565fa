#include "support/Resources.h"
#include "time/SystemTimeHandlerFixture.h"

#include <gmock/gmock.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <string>

namespace Halden::Tavro::Utils
{

namespace
{

using Log::Severity;
using testing::ElementsAre;
using testing::IsEmpty;
using namespace TestSupport;

class SystemTimeHandlerHardenedTest : public SystemTimeHandlerFixture
{
protected:
    SystemTimeHandlerHardenedTest()
    {
        manager->onTokenDestruction = [this] { events.emplace_back("token"); };
    }

    std::string const stillRunning = "Timer still running: Time has not been set yet.";
};

TEST_F(SystemTimeHandlerHardenedTest, TimerThatCannotBeArmedIsClosedAndTheReasonStaysInErrno)
{
    timerfdSettimeDouble.failCall(1, -1, EINVAL);
    closeDouble.replace(
        [this](int descriptor)
        {
            events.push_back("close " + std::to_string(descriptor));
            errno = EIO;
            return -1;
        });

    EXPECT_EQ(sut.startSetClockDetection(), 1);
    EXPECT_EQ(errno, EINVAL);

    EXPECT_THAT(events, ElementsAre("close 4711"));
}

TEST_F(SystemTimeHandlerHardenedTest, HandlerThatGivesUpClosesTheTimerOnce)
{
    auto handler = std::make_unique<OpenHandler>(manager);
    timerfdSettimeDouble.failCall(1, -1, ECANCELED);
    expectError("Failed to start a timer to detect when the clock is set. errno 125 (Operation canceled).");

    handler->initialize();
    handler.reset();

    EXPECT_THAT(events, ElementsAre("close 4711"));
}

TEST_F(SystemTimeHandlerHardenedTest, LaterSynchronisationClosesTheTimerThenEndsThePolling)
{
    sut.initialize();
    kernelStatus = 0;

    manager->function();

    EXPECT_TRUE(sut.hasAbsoluteTime());
    EXPECT_THAT(events, ElementsAre("close 4711", "token"));
}

TEST_F(SystemTimeHandlerHardenedTest, ClockDeviceThatAgreesLaterClosesTheTimerThenEndsThePolling)
{
    sut.initialize();
    devices = {"/dev/efirtc"};

    manager->function();

    EXPECT_TRUE(sut.hasAbsoluteTime());
    EXPECT_THAT(events, ElementsAre("close 4712", "close 4711", "token"));
}

TEST_F(SystemTimeHandlerHardenedTest, SynchronisationBesideAnUnexpectedExpiryClosesTheTimer)
{
    expectError("Reading timer file descriptor succeeded unexpectedly: 0123456789");
    sut.initialize();
    kernelStatus = 0;
    readDouble.replace(
        [](int, void* buffer, size_t)
        {
            std::memcpy(buffer, "0123456789", 10);
            return ssize_t{10};
        });

    manager->function();

    EXPECT_THAT(events, ElementsAre("close 4711", "token"));
}

TEST_F(SystemTimeHandlerHardenedTest, PollAfterTheTrustFindsTheTimerStillRunningWithoutReadingIt)
{
    sut.initialize();
    kernelStatus = 0;
    manager->function();

    manager->function();

    EXPECT_EQ(readDouble.count(), 1U);
    EXPECT_EQ(log.linesOf("SystemTime").back(), (LogLine{Severity::Trace, "SystemTime", stillRunning}));
    EXPECT_THAT(events, ElementsAre("close 4711", "token"));
}

TEST_F(SystemTimeHandlerHardenedTest, DestructorClosesTheTimerAfterTheLastPoll)
{
    auto handler = std::make_unique<OpenHandler>(manager);
    handler->initialize();

    handler.reset();

    EXPECT_THAT(events, ElementsAre("token", "close 4711"));
}

TEST_F(SystemTimeHandlerHardenedTest, DestructorClosesATimerWithTheDescriptorZero)
{
    timerUnderTest = 0;
    timerfdCreateDouble.replace([](int, int) { return 0; });
    auto handler = std::make_unique<OpenHandler>(manager);
    handler->initialize();

    handler.reset();

    EXPECT_THAT(events, ElementsAre("token", "close 0"));
}

TEST_F(SystemTimeHandlerHardenedTest, DestructorClosesNoTimerThatAPollHasClosed)
{
    auto handler = std::make_unique<OpenHandler>(manager);
    handler->initialize();
    letReadFail(ECANCELED);
    manager->function();

    handler.reset();

    EXPECT_THAT(events, ElementsAre("close 4711", "token"));
}

TEST_F(SystemTimeHandlerHardenedTest, SecondInitializationEndsTheFirstPollingAndClosesItsTimer)
{
    sut.initialize();

    sut.initialize();

    EXPECT_EQ(timerfdCreateDouble.count(), 2U);
    EXPECT_THAT(events, ElementsAre("token", "close 4711"));
}

TEST_F(SystemTimeHandlerHardenedTest, PollBeforeInitializeFindsTheTimerStillRunningAndLeavesStandardInputAlone)
{
    timerUnderTest = 0;
    auto handler = std::make_unique<OpenHandler>(manager);

    handler->pollTimeStatus();
    EXPECT_EQ(log.lines().back(), (LogLine{Severity::Trace, "SystemTime", stillRunning}));
    kernelStatus = 0;
    handler->pollTimeStatus();
    EXPECT_TRUE(handler->hasAbsoluteTime());
    handler.reset();

    EXPECT_EQ(readDouble.count(), 0U);
    EXPECT_THAT(events, IsEmpty());
}

TEST_F(SystemTimeHandlerHardenedTest, ThousandHandlersLeaveNothingBehind)
{
    useRealTimers();
    auto const run = [this](int count)
    {
        for (int i = 0; i < count; ++i)
        {
            kernelStatus = STA_UNSYNC;
            OpenHandler handler(manager);
            handler.initialize();
            manager->function();
            kernelStatus = i % 2 == 0 ? STA_UNSYNC : 0; // half of them end by trust, the others while they poll
            manager->function();
        }
        log.clear();
        events.clear();
    };
    run(2); // the first ones make what stays, such as the memory of what the doubles record
    auto const before = holdings();

    run(1000);

    EXPECT_TRUE(isBackTo(before));
}

TEST_F(SystemTimeHandlerHardenedTest, ThousandClockDevicesThatFailLeaveNothingBehind)
{
    devices = {"/dev/rtc0"};
    log.expect(isLine(Severity::Error, "",
                      std::string("Reading /dev/rtc0 failed with errno 25 (Inappropriate ioctl for device)")));
    openDouble.replace([](char const*, int flags, mode_t mode) { return openDouble.passOn("/dev/null", flags, mode); });
    auto const run = [this](int count)
    {
        for (int i = 0; i < count; ++i)
        {
            EXPECT_FALSE(sut.rtcValid());
        }
        log.clear();
    };
    run(2);
    auto const before = holdings();

    run(1000);

    EXPECT_TRUE(isBackTo(before));
}

}

}
