// A full pipe behind standard error, in the hardened build.

#include "process/FullStderr.h"
#include "process/Programs.h"

#include <gmock/gmock.h>

#include <chrono>

namespace Halden::Tavro::Utils
{

namespace
{

using namespace TestSupport;
using namespace std::chrono_literals;

TEST(ExecuteForkHardenedTest, LogCallThatWaitsForStandardErrorHoldsUpNoProgram)
{
    if (runsChildrenInCopies())
    {
        GTEST_SKIP() << "the system runs each child in a copy of this process";
    }

    auto const child = runWhileALogCallWaits([] { run("/bin/true"); }, 60s);

    EXPECT_FALSE(child.timedOut);
    EXPECT_EQ(child.exitCode, 0);
}

}

}
