// execute() with the programs of this machine, in the exact build.

#include "process/Programs.h"
#include "support/LogCapture.h"

#include <gmock/gmock.h>

#include <signal.h>

#include <chrono>
#include <string>

namespace Halden::Tavro::Utils
{

namespace
{

using namespace TestSupport;
using namespace std::chrono_literals;
using testing::Optional;

// kept: the output is read when the program has ended
TEST(ExecuteProgramExactTest, OneByteMoreThanThePipeHoldsEndsInAKill)
{
    LogCapture const log;
    auto const capacity = pipeCapacity();

    auto const result = run("/usr/bin/head", {"-c", std::to_string(capacity + 1), "/dev/zero"}, {}, 3s);

    EXPECT_THAT(result.termSignal, Optional(SIGKILL));
    EXPECT_FALSE(result.exitCode.has_value());
    EXPECT_EQ(result.output, std::string(capacity, '\0'));
}

}

}
