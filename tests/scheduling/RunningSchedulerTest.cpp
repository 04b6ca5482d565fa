#include "scheduling/RunningScheduler.h"

#include "scheduling/ManagerTest.h"

#include <gtest/gtest.h>

namespace Halden::Tavro::Utils
{

namespace
{

using namespace TestSupport;

using RunningSchedulerTest = ManagerTest;

TEST_F(RunningSchedulerTest, ThreadRunsOnBehalfOfWhomItDidBeforeWhenAScopeEnds)
{
    auto const manager = makeAsleep();
    RunningScheduler scheduler(*manager);

    {
        RunningScheduler::Scope const outer(&scheduler);
        {
            RunningScheduler::Scope const inner(nullptr);
            EXPECT_EQ(RunningScheduler::ofThisThread(), nullptr);
        }
        EXPECT_EQ(RunningScheduler::ofThisThread(), &scheduler);
    }

    EXPECT_EQ(RunningScheduler::ofThisThread(), nullptr);
}

}

}
