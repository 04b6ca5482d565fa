// What a look-up of the hardened build leaves behind when one of its calls fails: nothing.

#include "net/RouteFailingCallFixture.h"

namespace Halden::Tavro::Utils
{

namespace
{

using namespace TestSupport;
using testing::IsEmpty;

using RouteFailingCallHardenedTest = RouteFailingCallFixture;

TEST_F(RouteFailingCallHardenedTest, AddressThatCannotBeReachedLeavesNoSocket)
{
    auto const failures = {callsOf("socket", socketDouble, -1, EMFILE),
                           callsOf("connect", connectDouble, -1, ENETDOWN)};

    EXPECT_THAT(leftByFailingCalls(failures, lookUp, [this] { return socketLeft(); }), IsEmpty());
}

TEST_F(RouteFailingCallHardenedTest, LookUpThatGetsNoThreadLeavesNoSocket)
{
    EXPECT_THAT(leftByFailingCalls({callsOf("pthread_create", pthreadCreate, EAGAIN, 0)}, lookUpAside,
                                   [this] { return socketLeft(); }),
                IsEmpty());
}

}

}
