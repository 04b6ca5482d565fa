// What a manager of the hardened build leaves behind where memory is short: nothing.

#include "scheduling/ManagerFailingCallFixture.h"

namespace Halden::Tavro::Utils
{

namespace
{

using namespace TestSupport;
using testing::IsEmpty;

using PeriodicCallerManagerFailingCallHardenedTest = ManagerFailingCallFixture;

INSTANTIATE_TEST_SUITE_P(Both, PeriodicCallerManagerFailingCallHardenedTest, bothStrategies(), nameOfStrategy);

TEST_P(PeriodicCallerManagerFailingCallHardenedTest, TokenThatFindsNoMemoryLeavesItsFunctionUnregistered)
{
    EXPECT_THAT(leftByFailingCalls(
                    {allocations()}, [this] { makeManagerAndToken(); }, [this] { return destroyAll(); }),
                IsEmpty());
}

TEST_P(PeriodicCallerManagerFailingCallHardenedTest, TokenAndManagerEndWithoutMemory)
{
    auto const live = [this]
    {
        makeManagerAndToken();
        token.reset();
        manager.reset();
    };

    EXPECT_THAT(leftByFailingCalls({allocations()}, live, [this] { return destroyAll(); }), IsEmpty());
}

}

}
