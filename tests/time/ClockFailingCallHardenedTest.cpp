// What clock devices and the handler's timer leave open in the hardened build when one of their calls fails: nothing.

#include "time/ClockFailingCallFixture.h"

namespace Halden::Tavro::Utils
{

namespace
{

using namespace TestSupport;
using testing::IsEmpty;

using ClockFailingCallHardenedTest = ClockFailingCallFixture;

TEST_F(ClockFailingCallHardenedTest, DeviceIsClosedWhateverFails)
{
    EXPECT_THAT(leftByFailingCalls(
                    failuresOfDevice(), [this] { readDevice(); }, [this] { return deviceLeft(); }),
                IsEmpty());
}

TEST_F(ClockFailingCallHardenedTest, TimerIsClosedWhateverFails)
{
    auto failures = failuresOfTimer();
    failures.push_back(allocations());
    failures.push_back(callsOf("adjtimex", adjtimexDouble, -1, EFAULT));
    failures.push_back(callsOf("stat", statDouble, -1, EACCES));
    failures.push_back(callsOf("read", readDouble, -1, EIO));
    failures.push_back(doneCallsOf("close", closeDouble, -1, EIO));

    EXPECT_THAT(leftByFailingCalls(
                    failures,
                    [this]
                    {
                        initializeAndPoll();
                        handler.reset();
                    },
                    [this] { return destroyHandler(); }),
                IsEmpty());
}

}

}
