// What a monitor of the exact build leaves behind when one of the calls of its construction fails: its socket.
//
// Once the receiver thread runs, whatever fails in the constructor ends the process, see LocalIpsFatalExactTest.cpp. So
// getifaddrs does not fail here, and no allocation after the thread's start.

#include "net/LocalIpsFailingCallFixture.h"

#include <cerrno>
#include <cstddef>

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

class LocalIpsFailingCallExactTest : public LocalIpsFailingCallFixture
{
protected:
    /// Those before the receiver thread is started.
    FailingCalls earlyAllocations()
    {
        return {"new",
                [this](std::size_t n)
                {
                    hasFailed = true;
                    pthreadCreate.replace(
                        [this](auto... arguments)
                        {
                            hasFailed = allocationHasFailed();
                            return pthreadCreate.passOn(arguments...);
                        });
                    failNextAllocation(AllocationFailure::BadAlloc, n - 1);
                },
                [this]
                {
                    pthreadCreate.replace(nullptr);
                    return allocationHasFailed() && hasFailed;
                }};
    }

private:
    bool hasFailed{false};
};

// kept: services do not try again
TEST_F(LocalIpsFailingCallExactTest, ConstructionThatFailsBeforeItsThreadRunsLeavesItsSocket)
{
    auto const failures = {callsOf("bind", bindDouble, -1, EADDRINUSE), callsOf("fcntl", fcntlDouble, -1, EINVAL),
                           callsOf("pthread_create", pthreadCreate, EAGAIN, 0)};

    EXPECT_THAT(leftByFailingCalls(failures, live, [this] { return socketLeft(); }),
                ElementsAre("bind 1: a socket", "fcntl 1: a socket", "pthread_create 1: a socket"));
}

// kept: as above
TEST_F(LocalIpsFailingCallExactTest, ConstructionThatFindsNoMemoryBeforeItsThreadRunsLeavesItsSocketAtMost)
{
    EXPECT_THAT(leftByFailingCalls({earlyAllocations()}, live, [this] { return socketLeft(); }),
                AllOf(Not(IsEmpty()), Each(EndsWith(": a socket"))));
}

}

}
