// What execute() leaves behind when one of its calls fails, in the exact build.

#include "process/ExecuteFailingCallFixture.h"

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

using ExecuteFailingCallExactTest = ExecuteFailingCallFixture;

TEST_F(ExecuteFailingCallExactTest, PipeOrForkThatFailsLeavesNothing)
{
    EXPECT_THAT(leftByFailingCalls({callsOf("pipe2", pipe2Double, -1, EMFILE), callsOf("fork", forkDouble, -1, EAGAIN)},
                                   copyText, childLeft),
                IsEmpty());
}

// kept: a failure after the start leaves the child to the caller
TEST_F(ExecuteFailingCallExactTest, EndThatCannotBeOpenedLeavesTheChildAlone)
{
    std::FILE* const none = nullptr;

    EXPECT_THAT(leftByFailingCalls({callsOf("fdopen", fdopenDouble, none, EMFILE)}, copyText, childLeft),
                ElementsAre("fdopen 1: a child", "fdopen 2: a child"));
}

// kept: as above, but where it has ended already
TEST_F(ExecuteFailingCallExactTest, AllocationThatFailsLeavesTheChildAtMost)
{
    auto const left = leftByFailingCalls({allocations()}, copyText, childLeft);

    EXPECT_THAT(left, AllOf(Not(IsEmpty()), Each(EndsWith(": a child"))));
}

// kept: as above
TEST_F(ExecuteFailingCallExactTest, WaitThatFailsLeavesTheChildAlone)
{
    EXPECT_THAT(leftByFailingCalls({callsOf("waitpid", waitpidDouble, -1, EINVAL)}, killSleeper, childLeft),
                ElementsAre("waitpid 1: a child", "waitpid 2: a child"));
}

TEST_F(ExecuteFailingCallExactTest, OutputThatCannotBeReadLeavesNothing)
{
    EXPECT_THAT(leftByFailingCalls({callsOf("read", readDouble, -1, EIO)}, copyText, childLeft), IsEmpty());
}

TEST_F(ExecuteFailingCallExactTest, InputThatCannotBeWrittenLeavesNothing)
{
    EXPECT_THAT(leftByFailingCalls({callsOf("write", writeDouble, -1, EIO)}, copyText, childLeft), IsEmpty());
}

TEST_F(ExecuteFailingCallExactTest, EndThatFailsToCloseIsNotClosedAgain)
{
    EXPECT_THAT(leftByFailingCalls(
                    {doneCallsOf("close", closeDouble, -1, EINTR), doneCallsOf("fclose", fcloseDouble, EOF, EINTR)},
                    copyText, childLeft),
                IsEmpty());
}

TEST_F(ExecuteFailingCallExactTest, InterruptedSleepLeavesNothing)
{
    EXPECT_THAT(leftByFailingCalls({callsOf("nanosleep", nanosleepDouble, -1, EINTR)}, killSleeper, childLeft),
                IsEmpty());
}

// kept: as above
TEST_F(ExecuteFailingCallExactTest, ChildThatMayNotBeKilledIsLeftAlone)
{
    EXPECT_THAT(leftByFailingCalls({callsOf("kill", killDouble, -1, EPERM)}, killSleeper, childLeft),
                ElementsAre("kill 1: a child"));
}

}

}
