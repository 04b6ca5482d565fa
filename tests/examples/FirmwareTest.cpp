#include "support/ChildProcess.h"

#include <utils/TempDir.h>

#include <gmock/gmock.h>

#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

using namespace Halden::Tavro::TestSupport;
using namespace testing;

namespace
{

/// Both outputs come back as one text.
ChildResult firmware(std::vector<std::string> arguments, std::string const& path = "/usr/bin:/bin")
{
    return runInChild(
        [&]
        {
            setenv("PATH", path.c_str(), 1);
            std::vector<char*> pointers{const_cast<char*>(FIRMWARE)};
            std::transform(arguments.begin(), arguments.end(), std::back_inserter(pointers),
                           [](std::string& argument) { return argument.data(); });
            pointers.push_back(nullptr);
            execv(FIRMWARE, pointers.data());
            return 127;
        });
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
    Halden::Tavro::Utils::TempDir const others("FirmwareTest-", "/tmp");
    auto const command = std::filesystem::path(others.path()) / "tavro-fw-version";
    std::ofstream(command) << "#!/bin/sh\necho 9.9.9\n";
    std::filesystem::permissions(command, std::filesystem::perms::owner_all);
    std::string const path = others.path() + ":/usr/bin:/bin";

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
    for (std::vector<std::string> const& arguments :
         {std::vector<std::string>{"--speed"}, {"--device-commands", "/nowhere"}, {"--device-commands"}})
    {
        auto const result = firmware(arguments);

        EXPECT_THAT(result.output, AllOf(StartsWith("firmware: "), HasSubstr(arguments.back())));
        EXPECT_EQ(result.exitCode, 2);
    }
}

}
