// What a Pipe leaves behind when one of its calls fails.

#include "process/PipeFixture.h"
#include "support/FailingCalls.h"

#include <unistd.h>

#include <cerrno>
#include <stdexcept>

namespace Halden::Tavro::Utils
{

namespace
{

using namespace TestSupport;
using testing::IsEmpty;

using PipeFailingCallTest = PipeFixture;

TEST_F(PipeFailingCallTest, ConstructionThatFailsLeavesNothing)
{
    EXPECT_THAT(
        leftByFailingCalls({callsOf("pipe", pipeDouble, -1, EMFILE), doneCallsOf("close", closeDouble, -1, EINTR)},
                           [] { make(); }),
        IsEmpty());
}

TEST_F(PipeFailingCallTest, UseThatFailsLeavesThePipeToItsOwner)
{
    int const standardInput = dup(STDIN_FILENO);

    EXPECT_THAT(leftByFailingCalls({callsOf("dup2", dup2Double, -1, EBADF)},
                                   []
                                   {
                                       Pipe const sut;
                                       sut.useAsStdin();
                                   }),
                IsEmpty());

    EXPECT_EQ(dup2Double.passOn(standardInput, STDIN_FILENO), STDIN_FILENO);
    closeDouble.passOn(standardInput);
}

TEST_F(PipeFailingCallTest, BufferThatCannotBeMadeLeavesThePipeToItsOwner)
{
    std::FILE* const none = nullptr;
    auto const use = []
    {
        Pipe const sut;
        if (!sut.bufferRead().is_open())
        {
            throw std::runtime_error("closed");
        }
    };

    EXPECT_THAT(leftByFailingCalls({callsOf("fdopen", fdopenDouble, none, EMFILE), allocations()}, use), IsEmpty());
}

}

}
