#include "support/ChildProcess.h"

#include <gmock/gmock.h>

#include <unistd.h>

using namespace Halden::Tavro::TestSupport;
using namespace testing;

namespace
{

TEST(StopAndLookTest, ShowsTheValuesOfTheHeldWorkerBeforeItGoesOn)
{
    auto const result = runInChild(
        []
        {
            execl(STOP_AND_LOOK, STOP_AND_LOOK, "--jobs", "3", nullptr);
            return 127;
        });

    EXPECT_EQ(result.output, "job 1: held while adding, the sum is 1\n"
                             "job 1: released, the result is 1\n"
                             "job 2: held while adding, the sum is 3\n"
                             "job 2: released, the result is 3\n"
                             "job 3: held while adding, the sum is 6\n"
                             "job 3: released, the result is 6\n"
                             "open barrier: the result is 6\n");
    EXPECT_EQ(result.exitCode, 0);
}

TEST(StopAndLookTest, AnUnknownOptionIsNamedAndEndsWithStatusTwo)
{
    auto const result = runInChild(
        []
        {
            execl(STOP_AND_LOOK, STOP_AND_LOOK, "--speed", nullptr);
            return 127;
        });

    EXPECT_THAT(result.output, HasSubstr("--speed"));
    EXPECT_EQ(result.exitCode, 2);
}

}
