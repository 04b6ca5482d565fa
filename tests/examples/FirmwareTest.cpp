#include "support/RunExample.h"

#include <utils/TempDir.h>

#include <gmock/gmock.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace Halden::Tavro::Examples
{

namespace
{

using namespace TestSupport;
using namespace testing;

std::string const systemPath = "/usr/bin:/bin";

ChildResult firmware(std::vector<std::string> const& arguments, std::string const& path = systemPath)
{
    ExampleOptions options;
    options.environment = {{"PATH", path}};
    return runExample(FIRMWARE, arguments, options);
}

TEST(FirmwareTest, ShowsWhatTheDevicesCommandsTell)
{
    auto const result = firmware({"--device-commands", DEVICE_COMMANDS});

    EXPECT_EQ(result.output, "version: 1.2.3\n"
                             "compatible id: tavro-board-x\n");
    EXPECT_EQ(result.exitCode, 0);
}

TEST(FirmwareTest, CommandsOfTheGivenDirectoryComeFirst)
{
    Utils::TempDir const others("FirmwareTest-", std::filesystem::temp_directory_path());
    auto const command = std::filesystem::path(others.path()) / "tavro-fw-version";
    std::ofstream(command) << "#!/bin/sh\necho 9.9.9\n";
    std::filesystem::permissions(command, std::filesystem::perms::owner_all);
    std::string const path = others.path() + ":" + systemPath;

    EXPECT_THAT(firmware({}, path).output, HasSubstr("version: 9.9.9\n"));
    EXPECT_THAT(firmware({"--device-commands", DEVICE_COMMANDS}, path).output, HasSubstr("version: 1.2.3\n"));
}

TEST(FirmwareTest, VerboseShowsQuestionsAndAnswers)
{
    auto const result = firmware({"--device-commands", DEVICE_COMMANDS, "--verbose"});

    EXPECT_THAT(result.output, HasSubstr("executing cmd 'tavro-fw-version'\n"));
    EXPECT_THAT(result.output, HasSubstr("read from stdout: 1.2.3\n"));
    EXPECT_THAT(result.output, HasSubstr("read from stdout: tavro-board-x\n"));
    EXPECT_EQ(result.exitCode, 0);
}

TEST(FirmwareTest, WithoutTheCommandsNothingIsKnown)
{
    auto const result = firmware({});

    EXPECT_THAT(result.output, HasSubstr("Failed to read the output of command 'tavro-fw-version'.\n"));
    EXPECT_THAT(result.output, EndsWith("version: unknown\n"
                                        "compatible id: unknown\n"));
    EXPECT_EQ(result.exitCode, 1);
}

TEST(FirmwareTest, BadOptionIsNamedAndEndsWithStatusTwo)
{
    expectRefusal(FIRMWARE, {{{"--speed"}, "--speed"},
                             {{"--device-commands", "/nowhere"}, "/nowhere"},
                             {{"--device-commands"}, "--device-commands"}});
}

TEST(FirmwareTest, VersionIsThatOfTheLibrary)
{
    expectVersion(FIRMWARE);
}

TEST(FirmwareTest, StandardOutputThatCannotBeWrittenIsAnError)
{
    expectComplaintAboutFullOutput(FIRMWARE, {"--device-commands", DEVICE_COMMANDS});
}

}

}
