// What a manager leaves behind when one of its calls fails, in either build.

#include "scheduling/ManagerFailingCallFixture.h"

namespace Halden::Tavro::Utils
{

namespace
{

using namespace TestSupport;
using testing::IsEmpty;

using PeriodicCallerManagerFailingCallTest = ManagerFailingCallFixture;

INSTANTIATE_TEST_SUITE_P(Both, PeriodicCallerManagerFailingCallTest, bothStrategies(), nameOfStrategy);

TEST_P(PeriodicCallerManagerFailingCallTest, ConstructionThatFailsLeavesNoThread)
{
    EXPECT_THAT(leftByFailingCalls(
                    {callsOf("pthread_create", pthreadCreate, EAGAIN, 0), allocations()}, [this] { makeManager(); },
                    [this] { return destroyAll(); }),
                IsEmpty());
}

}

}
