// What a registration with a manager of the exact build leaves behind where memory is short.

#include "scheduling/ManagerFailingCallFixture.h"

namespace Halden::Tavro::Utils
{

namespace
{

using namespace TestSupport;
using testing::AllOf;
using testing::Each;
using testing::EndsWith;
using testing::IsEmpty;
using testing::Not;

using PeriodicCallerManagerFailingCallExactTest = ManagerFailingCallFixture;

INSTANTIATE_TEST_SUITE_P(Both, PeriodicCallerManagerFailingCallExactTest, bothStrategies(), nameOfStrategy);

// kept: the item is in the list before its token is made
TEST_P(PeriodicCallerManagerFailingCallExactTest, TokenThatFindsNoMemoryLeavesItsFunctionRegistered)
{
    EXPECT_THAT(leftByFailingCalls(
                    {allocations()}, [this] { makeManagerAndToken(); }, [this] { return destroyAll(); }),
                AllOf(Not(IsEmpty()), Each(EndsWith(": a registration"))));
}

}

}
