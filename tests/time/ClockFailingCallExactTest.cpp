// What clock devices and the handler's timer leave open in the exact build when one of their calls fails.

#include "time/ClockFailingCallFixture.h"

namespace Halden::Tavro::Utils
{

namespace
{

using namespace TestSupport;
using testing::AllOf;
using testing::Each;
using testing::ElementsAre;
using testing::EndsWith;
using testing::IsEmpty;
using testing::Not;

using ClockFailingCallExactTest = ClockFailingCallFixture;

// kept: the device stays taken, and the log says so from then on
TEST_F(ClockFailingCallExactTest, DeviceThatDoesNotAnswerStaysOpen)
{
    EXPECT_THAT(leftByFailingCalls(
                    failuresOfDevice(), [this] { readDevice(); }, [this] { return deviceLeft(); }),
                ElementsAre("ioctl 1: an open device"));
}

// kept: a handler never closes its timer, not even one that was not armed
TEST_F(ClockFailingCallExactTest, TimerThatCannotBeArmedStaysOpen)
{
    EXPECT_THAT(leftByFailingCalls(
                    failuresOfTimer(), [this] { initializeAndPoll(); }, [this] { return destroyHandler(); }),
                ElementsAre("timerfd_settime 1: 1 descriptor"));
}

// kept: as above
TEST_F(ClockFailingCallExactTest, RegistrationThatFindsNoMemoryLeavesTheTimerAtMost)
{
    EXPECT_THAT(leftByFailingCalls(
                    {allocations()}, [this] { initializeAndPoll(); }, [this] { return destroyHandler(); }),
                AllOf(Not(IsEmpty()), Each(EndsWith(": 1 descriptor"))));
}

// kept: as above
TEST_F(ClockFailingCallExactTest, PollThatDoesNotGetToTheTimerLeavesItOpen)
{
    auto const failures = {callsOf("adjtimex", adjtimexDouble, -1, EFAULT), callsOf("stat", statDouble, -1, EACCES)};

    EXPECT_THAT(leftByFailingCalls(
                    failures, [this] { initializeAndPoll(); }, [this] { return destroyHandler(); }),
                AllOf(Not(IsEmpty()), Each(EndsWith(": 1 descriptor"))));
}

TEST_F(ClockFailingCallExactTest, TimerThatCannotBeReadIsClosed)
{
    EXPECT_THAT(leftByFailingCalls(
                    {callsOf("read", readDouble, -1, EIO)}, [this] { initializeAndPoll(); },
                    [this] { return destroyHandler(); }),
                IsEmpty());
}

}

}
