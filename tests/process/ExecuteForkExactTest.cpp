// A full pipe behind standard error, in the exact build.

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

// kept: the logging library holds its locks during a fork, so that the child can log
TEST(ExecuteForkExactTest, LogCallThatWaitsForStandardErrorHoldsUpEveryFork)
{
    auto const child = runWhileALogCallWaits([] { run("/bin/true", {}, {}, 0ms); }, 5s);

    EXPECT_TRUE(child.timedOut);
}

}

}
