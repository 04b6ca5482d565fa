// What a look-up of the exact build leaves behind when one of its calls fails.

#include "net/RouteFailingCallFixture.h"

namespace Halden::Tavro::Utils
{

namespace
{

using namespace TestSupport;
using testing::ElementsAre;

using RouteFailingCallExactTest = RouteFailingCallFixture;

// kept: each look-up that succeeds leaves its socket, also where the first address was of no use
TEST_F(RouteFailingCallExactTest, AddressThatCannotBeReachedLeavesTheSocketOfTheNext)
{
    auto const failures = {callsOf("socket", socketDouble, -1, EMFILE),
                           callsOf("connect", connectDouble, -1, ENETDOWN)};

    EXPECT_THAT(leftByFailingCalls(failures, lookUp, [this] { return socketLeft(); }),
                ElementsAre("socket 1: a socket", "connect 1: a socket"));
}

// kept: as above
TEST_F(RouteFailingCallExactTest, LookUpThatGetsNoThreadLeavesASocketLikeAnyOther)
{
    EXPECT_THAT(leftByFailingCalls({callsOf("pthread_create", pthreadCreate, EAGAIN, 0)}, lookUpAside,
                                   [this] { return socketLeft(); }),
                ElementsAre("pthread_create 1: a socket"));
}

}

}
