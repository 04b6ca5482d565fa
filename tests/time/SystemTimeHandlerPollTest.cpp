#include "support/WaitFor.h"
#include "time/SystemTimeHandlerFixture.h"

#include <gmock/gmock.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace Halden::Tavro::Utils
{

namespace
{

using Log::Severity;
using testing::ElementsAre;
using testing::IsEmpty;
using namespace TestSupport;
using namespace std::chrono_literals;

using SystemTimeHandlerPollTest = SystemTimeHandlerFixture;

TEST_F(SystemTimeHandlerPollTest, RunningTimerKeepsThePollingUp)
{
    sut.initialize();
    log.clear();

    manager->function();
    manager->function();

    EXPECT_FALSE(sut.hasAbsoluteTime());
    EXPECT_EQ(manager->destroyed, 0);
    EXPECT_EQ(closeDouble.count(), 0U);
    EXPECT_EQ(readDouble.count(), 2U);
    EXPECT_EQ(std::get<0>(readDouble.calls()[0]), timer);
    EXPECT_EQ(std::get<2>(readDouble.calls()[0]), 10U);
    EXPECT_EQ(log.linesOf("SystemTime").back(),
              (LogLine{Severity::Trace, "SystemTime", "Timer still running: Time has not been set yet."}));
}

// kept: the line shows the bytes as they are, whatever was read
TEST_F(SystemTimeHandlerPollTest, UnexpectedExpiryIsLoggedWithAllTenBytesAndPollingGoesOn)
{
    readDouble.replace(
        [](int, void* buffer, size_t)
        {
            std::memcpy(buffer, "0123456789", 10);
            return ssize_t{10};
        });
    std::string const text = "Reading timer file descriptor succeeded unexpectedly: 0123456789";
    expectError(text);
    sut.initialize();

    manager->function();

    EXPECT_FALSE(sut.hasAbsoluteTime());
    EXPECT_EQ(manager->destroyed, 0);
    EXPECT_EQ(closeDouble.count(), 0U);
    EXPECT_EQ(log.linesOf("SystemTime").back(), (LogLine{Severity::Error, "SystemTime", text}));
}

TEST_F(SystemTimeHandlerPollTest, UnexpectedExpiryDoesNotKeepThePollingOfABelievedClockUp)
{
    readDouble.replace([](int, void*, size_t) { return ssize_t{8}; });
    expectError("Reading timer file descriptor succeeded unexpectedly: ");
    sut.initialize();
    kernelStatus = 0;

    manager->function();

    EXPECT_TRUE(sut.hasAbsoluteTime());
    EXPECT_EQ(manager->destroyed, 1);
}

// kept: whatever has not failed has succeeded, and the line shows a buffer of ten zeros
TEST_F(SystemTimeHandlerPollTest, TimerThatGivesNothingCountsAsExpired)
{
    readDouble.replace(
        [](int, void*, size_t)
        {
            errno = ECANCELED;
            return ssize_t{0};
        });
    std::string const text = "Reading timer file descriptor succeeded unexpectedly: ";
    expectError(text);
    sut.initialize();

    manager->function();

    EXPECT_FALSE(sut.hasAbsoluteTime());
    EXPECT_EQ(manager->destroyed, 0);
    EXPECT_EQ(log.linesOf("SystemTime").back(), (LogLine{Severity::Error, "SystemTime", text}));
}

TEST_F(SystemTimeHandlerPollTest, SetClockIsLoggedThenBelievedThenClosesTheTimerThenEndsPolling)
{
    sut.initialize();
    log.clear();
    letReadFail(ECANCELED);
    std::vector<bool> believed;
    log.onLine(
        [&](LogLine const& line)
        {
            if (line.severity == Severity::Info)
            {
                events.push_back(line.text);
                believed.push_back(sut.hasAbsoluteTime());
            }
        });
    closeDouble.replace(
        [&](int descriptor)
        {
            events.push_back("close " + std::to_string(descriptor));
            believed.push_back(sut.hasAbsoluteTime());
            return 0;
        });
    manager->onTokenDestruction = [this] { events.emplace_back("token"); };

    manager->function();

    EXPECT_TRUE(sut.hasAbsoluteTime());
    EXPECT_THAT(events, ElementsAre("Clock time was set.", "close 4711", "token"));
    EXPECT_THAT(believed, ElementsAre(false, true));
    EXPECT_EQ(manager->destroyed, 1);
}

TEST_F(SystemTimeHandlerPollTest, UnreadableTimerIsLoggedThenEndsPollingThenIsClosed)
{
    std::string const text = "Error accessing clock set timer: Stop polling. errno 5 (Input/output error).";
    expectError(text);
    sut.initialize();
    letReadFail(EIO);
    log.onLine(
        [this](LogLine const& line)
        {
            errno = 0;
            if (line.severity == Severity::Error)
            {
                events.push_back(line.text);
            }
        });
    manager->onTokenDestruction = [this] { events.emplace_back("token"); };

    manager->function();

    EXPECT_FALSE(sut.hasAbsoluteTime());
    EXPECT_THAT(events, ElementsAre(text, "token", "close 4711"));
}

// kept: a timer that does not block is never interrupted
TEST_F(SystemTimeHandlerPollTest, InterruptedReadIsAnErrorLikeAnyOther)
{
    std::string const text = "Error accessing clock set timer: Stop polling. errno 4 (Interrupted system call).";
    expectError(text);
    sut.initialize();
    letReadFail(EINTR);

    manager->function();

    EXPECT_EQ(manager->destroyed, 1);
    EXPECT_THAT(events, ElementsAre("close 4711"));
    EXPECT_EQ(readDouble.count(), 1U);
    EXPECT_EQ(log.linesOf("SystemTime").back(), (LogLine{Severity::Error, "SystemTime", text}));
}

TEST_F(SystemTimeHandlerPollTest, UnreadableTimerDoesNotTakeBackTheTrust)
{
    expectError("Error accessing clock set timer: Stop polling. errno 5 (Input/output error).");
    sut.initialize();
    kernelStatus = 0;
    letReadFail(EIO);

    manager->function();

    EXPECT_TRUE(sut.hasAbsoluteTime());
    EXPECT_EQ(manager->destroyed, 1);
    EXPECT_THAT(events, ElementsAre("close 4711"));
}

TEST_F(SystemTimeHandlerPollTest, LaterSynchronisationEndsThePolling)
{
    sut.initialize();
    kernelStatus = 0;
    devices = {"/dev/rtc0"};

    manager->function();

    EXPECT_TRUE(sut.hasAbsoluteTime());
    EXPECT_EQ(manager->destroyed, 1);
    EXPECT_EQ(readDouble.count(), 1U);
    EXPECT_EQ(openDouble.count(), 0U); // no clock device need be asked
}

// kept: such a poll comes from a derived class alone, which sees what is so now
TEST_F(SystemTimeHandlerPollTest, EveryPollAnswersAnew)
{
    sut.startSetClockDetection();
    kernelStatus = 0;
    sut.pollTimeStatus();
    EXPECT_TRUE(sut.hasAbsoluteTime());

    kernelStatus = STA_UNSYNC;
    sut.pollTimeStatus();

    EXPECT_FALSE(sut.hasAbsoluteTime());
}

// kept: such a poll comes from a derived class alone, which sees the error line
TEST_F(SystemTimeHandlerPollTest, PollAfterTheClockWasSetCannotReadTheTimerAnyMore)
{
    std::string const text = "Error accessing clock set timer: Stop polling. errno 9 (Bad file descriptor).";
    expectError(text);
    sut.initialize();
    letReadFail(ECANCELED);
    manager->function();

    manager->function();

    EXPECT_EQ(log.linesOf("SystemTime").back(), (LogLine{Severity::Error, "SystemTime", text}));
    EXPECT_EQ(readDouble.count(), 1U);
    EXPECT_THAT(events, ElementsAre("close 4711"));
}

TEST_F(SystemTimeHandlerPollTest, PollWithATimerThatCouldNotBeMadeCannotReadIt)
{
    std::string const text = "Error accessing clock set timer: Stop polling. errno 9 (Bad file descriptor).";
    expectError("error creating timer to check for system time updates. errno 24 (Too many open files).");
    expectError(text);
    timerfdCreateDouble.failCall(1, -1, EMFILE);
    sut.startSetClockDetection();

    sut.pollTimeStatus();

    EXPECT_EQ(log.lines().back(), (LogLine{Severity::Error, "SystemTime", text}));
    EXPECT_THAT(events, IsEmpty());
}

TEST_F(SystemTimeHandlerPollTest, TimerMayHaveTheDescriptorZero)
{
    timerUnderTest = 0;
    timerfdCreateDouble.replace([](int, int) { return 0; });
    letReadFail(ECANCELED);

    sut.initialize();
    ASSERT_EQ(manager->registered, 1);
    EXPECT_EQ(manager->destroyed, 0);
    manager->function();

    EXPECT_TRUE(sut.hasAbsoluteTime());
    EXPECT_THAT(events, ElementsAre("close 0"));
}

TEST_F(SystemTimeHandlerPollTest, ClockDeviceThatAgreesLaterEndsThePolling)
{
    sut.initialize();
    devices = {"/dev/efirtc"};

    manager->function();

    EXPECT_TRUE(sut.hasAbsoluteTime());
    EXPECT_EQ(manager->destroyed, 1);
}

TEST_F(SystemTimeHandlerPollTest, FirstPollBeforeAddReturnsMayReachTrust)
{
    manager->duringAdd = [this]
    {
        kernelStatus = 0;
        manager->function();
    };

    sut.initialize();

    EXPECT_TRUE(sut.hasAbsoluteTime());
    EXPECT_EQ(manager->destroyed, 1);
}

TEST_F(SystemTimeHandlerPollTest, FirstPollOnAnotherThreadBeforeAddReturnsMayReachTrust)
{
    manager->duringAdd = [this]
    {
        kernelStatus = 0;
        std::thread(manager->function).join();
    };

    sut.initialize();

    EXPECT_TRUE(sut.hasAbsoluteTime());
    EXPECT_EQ(manager->destroyed, 1);
}

TEST_F(SystemTimeHandlerPollTest, FirstPollBeforeAddReturnsMayGiveUp)
{
    expectError("Error accessing clock set timer: Stop polling. errno 5 (Input/output error).");
    letReadFail(EIO);
    manager->duringAdd = [this] { manager->function(); };

    sut.initialize();

    EXPECT_FALSE(sut.hasAbsoluteTime());
    EXPECT_EQ(manager->destroyed, 1);
    EXPECT_THAT(events, ElementsAre("close 4711"));
}

TEST_F(SystemTimeHandlerPollTest, DestructorLetsGoOfTheManagerThenEndsThePolling)
{
    auto handler = std::make_unique<OpenHandler>(manager);
    handler->initialize();
    auto const owners = manager.use_count();
    auto ownersAtTheToken = owners;
    manager->onTokenDestruction = [&] { ownersAtTheToken = manager.use_count(); };

    handler.reset();

    EXPECT_EQ(manager->destroyed, 1);
    EXPECT_EQ(ownersAtTheToken, owners - 1);
}

TEST_F(SystemTimeHandlerPollTest, DestructorWaitsUntilAPollHasDestroyedItsTokenAndIsNotTouchedAfterwards)
{
    expectError("Error accessing clock set timer: Stop polling. errno 5 (Input/output error).");
    auto handler = std::make_unique<SystemTimeHandler>(manager);
    handler->initialize();
    letReadFail(EIO);
    std::promise<void> tokenTaken;
    std::promise<void> handlerGone;
    std::shared_future<void> const gone = handlerGone.get_future().share();
    manager->onTokenDestruction = [&]
    {
        tokenTaken.set_value();
        EXPECT_FALSE(becomesReady(gone, 200ms));
    };
    closeDouble.replace(
        [&](int descriptor)
        {
            EXPECT_TRUE(becomesReady(gone, 10s));
            events.push_back("close " + std::to_string(descriptor));
            return 0;
        });

    std::thread poll(manager->function);
    bool const isTaken = becomesReady(tokenTaken.get_future(), 10s);
    handler.reset();
    handlerGone.set_value();
    poll.join();

    EXPECT_TRUE(isTaken);
    EXPECT_EQ(manager->destroyed, 1);
    EXPECT_THAT(events, ElementsAre("close 4711"));
}

}

}
