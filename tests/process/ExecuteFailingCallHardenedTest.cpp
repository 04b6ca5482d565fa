// What execute() leaves behind when one of its calls fails, in the hardened build: nothing, ever.

#include "process/ExecuteFailingCallFixture.h"

namespace Halden::Tavro::Utils
{

namespace
{

using namespace TestSupport;
using testing::IsEmpty;

using ExecuteFailingCallHardenedTest = ExecuteFailingCallFixture;

TEST_F(ExecuteFailingCallHardenedTest, NoCallOfAConversationThatFailsLeavesAnything)
{
    EXPECT_THAT(
        leftByFailingCalls({callsOf("pipe2", pipe2Double, -1, EMFILE), callsOf("fcntl", fcntlDouble, -1, EBADF),
                            callsOf("pidfd_open", pidfdOpenDouble, -1, ENOSYS), callsOf("read", readDouble, -1, EIO),
                            callsOf("fork", forkDouble, -1, EAGAIN), callsOf("write", writeDouble, -1, EIO),
                            callsOf("poll", pollDouble, -1, EINTR), callsOf("waitpid", waitpidDouble, -1, EINVAL),
                            doneCallsOf("close", closeDouble, -1, EINTR), allocations()},
                           copyText, childLeft),
        IsEmpty());
}

TEST_F(ExecuteFailingCallHardenedTest, NoCallAtTheEndOfTheTimeThatFailsLeavesAnything)
{
    EXPECT_THAT(leftByFailingCalls({callsOf("kill", killDouble, -1, EPERM), callsOf("ioctl", ioctlDouble, -1, ENOTTY),
                                    callsOf("waitpid", waitpidDouble, -1, EINVAL), allocations()},
                                   killSleeper, childLeft),
                IsEmpty());
}

}

}
