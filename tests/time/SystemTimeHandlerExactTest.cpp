#include "time/SystemTimeHandlerFixture.h"

#include <gmock/gmock.h>

#include <cerrno>
#include <memory>

namespace Halden::Tavro::Utils
{

namespace
{

using Log::Severity;
using testing::_;
using testing::ElementsAre;
using testing::FieldsAre;
using testing::IsEmpty;
using namespace TestSupport;

using SystemTimeHandlerExactTest = SystemTimeHandlerFixture;

// kept: a service has one handler, and loses one descriptor; the hardened build closes it
TEST_F(SystemTimeHandlerExactTest, TimerThatCannotBeArmedStaysOpen)
{
    timerfdSettimeDouble.failCall(1, -1, EINVAL);
    timerfdSettimeDouble.failCall(2, -1, EINVAL);
    expectError("Failed to start a timer to detect when the clock is set. errno 22 (Invalid argument).");

    EXPECT_EQ(sut.startSetClockDetection(), 1);
    sut.initialize();

    EXPECT_THAT(events, IsEmpty());
}

// kept: a later poll finds the timer as it was; the hardened build closes it
TEST_F(SystemTimeHandlerExactTest, LaterSynchronisationLeavesTheTimerOpen)
{
    sut.initialize();
    kernelStatus = 0;

    manager->function();

    EXPECT_EQ(manager->destroyed, 1);
    EXPECT_THAT(events, IsEmpty());
}

// kept: a later poll finds the timer as it was; the hardened build closes it
TEST_F(SystemTimeHandlerExactTest, ClockDeviceThatAgreesLaterLeavesTheTimerOpen)
{
    sut.initialize();
    devices = {"/dev/efirtc"};

    manager->function();

    EXPECT_EQ(manager->destroyed, 1);
    EXPECT_THAT(events, ElementsAre("close 4712")); // that of the device
}

// kept: the log stays free of an error where the trust came another way
TEST_F(SystemTimeHandlerExactTest, PollAfterTheTrustStillFindsTheTimerThatWasLeftOpen)
{
    sut.initialize();
    kernelStatus = 0;
    manager->function();

    manager->function();

    EXPECT_THAT(readDouble.calls(), ElementsAre(FieldsAre(timer, _, 10U), FieldsAre(timer, _, 10U)));
    EXPECT_EQ(log.linesOf("SystemTime").back(),
              (LogLine{Severity::Trace, "SystemTime", "Timer still running: Time has not been set yet."}));
    EXPECT_EQ(manager->destroyed, 1);
}

// kept: a service has one handler, which lives as long; the hardened build closes the timer
TEST_F(SystemTimeHandlerExactTest, DestructorLeavesTheTimerOpen)
{
    auto handler = std::make_unique<OpenHandler>(manager);
    handler->initialize();

    handler.reset();

    EXPECT_EQ(manager->destroyed, 1);
    EXPECT_THAT(events, IsEmpty());
}

// kept: initialize() is to be called once; the hardened build closes the first timer
TEST_F(SystemTimeHandlerExactTest, SecondInitializationLeavesTheFirstTimerOpen)
{
    sut.initialize();

    sut.initialize();

    EXPECT_EQ(timerfdCreateDouble.count(), 2U);
    EXPECT_THAT(events, IsEmpty());
}

// kept: initialize() is to be called once; the hardened build ends the first polling before it makes the second timer
TEST_F(SystemTimeHandlerExactTest, FirstTokenLivesUntilTheSecondIsThere)
{
    sut.initialize();
    int destroyedBefore = -1;
    manager->duringAdd = [&] { destroyedBefore = manager->destroyed; };

    sut.initialize();

    EXPECT_EQ(destroyedBefore, 0);
    EXPECT_EQ(manager->destroyed, 1);
}

// kept: such a poll comes from a derived class alone; the hardened build knows that there is no timer yet
TEST_F(SystemTimeHandlerExactTest, PollBeforeInitializeReadsAndClosesStandardInput)
{
    expectError("Error accessing clock set timer: Stop polling. errno 5 (Input/output error).");
    timerUnderTest = 0;
    letReadFail(EIO);

    sut.pollTimeStatus();

    EXPECT_THAT(readDouble.calls(), ElementsAre(FieldsAre(0, _, 10U)));
    EXPECT_THAT(events, ElementsAre("close 0"));
}

}

}
