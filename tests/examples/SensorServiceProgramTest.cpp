#include "support/RunExample.h"

#include <gmock/gmock.h>

namespace Halden::Tavro::Examples
{

namespace
{

using namespace TestSupport;
using namespace testing;

TEST(SensorServiceProgramTest, ReportsWhatItHasFound)
{
    auto const result = runExample(SENSOR_SERVICE, {"--seconds", "1"});

    EXPECT_EQ(result.exitCode, 0);
    EXPECT_THAT(result.output, ContainsRegex("firmware .*, [1-9][0-9]* readings, mean 2[0-9]\\.[0-9][0-9]\n"));
}

TEST(SensorServiceProgramTest, BadOptionsAreAnsweredWithOneSentence)
{
    expectRefusal(SENSOR_SERVICE,
                  {{{"--speed"}, "--speed"}, {{"--seconds", "0"}, "--seconds"}, {{"--seconds", "soon"}, "--seconds"}});
}

TEST(SensorServiceProgramTest, VersionIsThatOfTheLibrary)
{
    expectVersion(SENSOR_SERVICE);
}

TEST(SensorServiceProgramTest, StandardOutputThatCannotBeWrittenIsAnError)
{
    expectComplaintAboutFullOutput(SENSOR_SERVICE, {"--seconds", "1"});
}

}

}
