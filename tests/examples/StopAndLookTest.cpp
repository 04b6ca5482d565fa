#include "support/RunExample.h"

#include <gmock/gmock.h>

namespace Halden::Tavro::Examples
{

namespace
{

using namespace TestSupport;
using namespace testing;

TEST(StopAndLookTest, ShowsTheValuesOfTheHeldWorkerBeforeItGoesOn)
{
    auto const result = runExample(STOP_AND_LOOK, {"--jobs", "3"});

    EXPECT_EQ(result.output, "job 1: held while adding, the sum is 1\n"
                             "job 1: released, the result is 1\n"
                             "job 2: held while adding, the sum is 3\n"
                             "job 2: released, the result is 3\n"
                             "job 3: held while adding, the sum is 6\n"
                             "job 3: released, the result is 6\n"
                             "open barrier: the result is 6\n");
    EXPECT_EQ(result.exitCode, 0);
}

TEST(StopAndLookTest, BadOptionsAreAnsweredWithOneSentence)
{
    expectRefusal(STOP_AND_LOOK, {{{"--speed"}, "--speed"}, {{"--jobs", "-1"}, "--jobs"}});
}

TEST(StopAndLookTest, VersionIsThatOfTheLibrary)
{
    expectVersion(STOP_AND_LOOK);
}

TEST(StopAndLookTest, StandardOutputThatCannotBeWrittenIsAnError)
{
    expectComplaintAboutFullOutput(STOP_AND_LOOK, {});
}

}

}
