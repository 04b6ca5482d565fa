#include "support/NetworkNamespace.h"
#include "support/RunExample.h"
#include "support/RunningProgram.h"

#include <utils/TempDir.h>

#include <gmock/gmock.h>

#include <H5Cpp.h>

#include <signal.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace Halden::Tavro::Examples
{

namespace
{

using namespace TestSupport;
using namespace testing;

/// Runs the service as a user does. Both its outputs come back as one text.
ChildResult runService(std::vector<std::string> const& arguments, ExampleOptions const& options = {})
{
    return runExample(DEVICE_SERVICE, arguments, options);
}

/// The runs of each function, as the table has them.
std::map<std::string, int> runsIn(std::string const& output)
{
    std::regex const row(R"(^([a-z]+) +(\d+) +(\d+) +(\d+)((?: +(?:-?\d+\.\d\d|-)){5})$)");
    std::map<std::string, int> runs;
    std::istringstream lines(output);
    for (std::string line; std::getline(lines, line);)
    {
        std::smatch parts;
        if (std::regex_match(line, parts, row))
        {
            runs[parts[1]] = std::stoi(parts[3]);
        }
    }
    return runs;
}

auto hasEachFunctionWithRuns()
{
    auto const ran = [](char const* name) { return Pair(name, Gt(0)); };
    return UnorderedElementsAre(ran("pressure"), ran("load"), ran("memory"), ran("clock"), ran("addresses"),
                                ran("link"), ran("upload"), AnyOf(ran("temperature"), ran("uptime")));
}

std::string contentOf(std::filesystem::path const& path)
{
    std::ostringstream content;
    content << std::ifstream(path).rdbuf();
    return content.str();
}

long countOf(std::string const& text, std::string const& expression)
{
    std::regex const regex(expression);
    return std::distance(std::sregex_iterator(text.begin(), text.end(), regex), std::sregex_iterator());
}

/// Elements, attributes and nesting; no entities but the usual, which is all that the picture uses.
bool isWellFormed(std::string text)
{
    std::regex const piece(
        R"(<\?xml[^<>]*\?>|<(/?)([a-z]+)((?: [a-zA-Z0-9]+="[^"<>&]*")*)(/?)>|[^<>&]+|&(?:amp|lt|gt);)");
    std::vector<std::string> open;
    int roots = 0;
    auto at = text.cbegin();
    for (std::smatch match; at != text.cend(); at = match[0].second)
    {
        if (!std::regex_search(at, text.cend(), match, piece, std::regex_constants::match_continuous))
        {
            return false;
        }
        if (!match[2].matched)
        {
            continue;
        }
        if (match[1].length() > 0)
        {
            if (open.empty() || open.back() != match[2])
            {
                return false;
            }
            open.pop_back();
            continue;
        }
        roots += open.empty() ? 1 : 0;
        if (match[4].length() == 0)
        {
            open.push_back(match[2]);
        }
    }
    return open.empty() && roots == 1;
}

class DeviceServiceTest : public Test
{
protected:
    std::string pathOf(char const* file) const { return directory.path() + "/" + file; }

private:
    Utils::TempDir const directory{"DeviceServiceTest-", std::filesystem::temp_directory_path()};
};

class DeviceServiceStrategyTest : public DeviceServiceTest, public WithParamInterface<char const*>
{
};

TEST_P(DeviceServiceStrategyTest, RunsEachFunctionAndDrawsEachExecution)
{
    auto const picture = pathOf("timeline.svg");

    auto const result = runService({"--strategy", GetParam(), "--seconds", "2", "--timeline", picture});

    EXPECT_EQ(result.exitCode, 0) << result.output;
    auto const runs = runsIn(result.output);
    EXPECT_THAT(runs, hasEachFunctionWithRuns()) << result.output;
    std::string const svg = contentOf(picture);
    EXPECT_TRUE(isWellFormed(svg)) << svg;
    long executions = 0;
    for (auto const& [name, count] : runs)
    {
        EXPECT_THAT(svg, HasSubstr(">" + name + "</text>"));
        executions += count;
    }
    EXPECT_EQ(countOf(svg, "<rect class=\"run( failed)?\""), executions);
    EXPECT_EQ(countOf(svg, "<rect class=\"late\""), executions);
}

INSTANTIATE_TEST_SUITE_P(, DeviceServiceStrategyTest, Values("sequential", "thread-pool"),
                         [](auto const& strategy)
                         { return strategy.param == std::string("sequential") ? "Sequential" : "ThreadPool"; });

/// How many rows each data set of an HDF5 file has.
std::map<std::string, int> rowsIn(std::filesystem::path const& path)
{
    H5::H5File const file(path, H5F_ACC_RDONLY);
    std::map<std::string, int> rows;
    for (hsize_t i = 0; i < file.getNumObjs(); ++i)
    {
        auto const name = file.getObjnameByIdx(i);
        rows[name] = static_cast<int>(file.openDataSet(name).getSpace().getSimpleExtentNpoints());
    }
    return rows;
}

TEST_F(DeviceServiceTest, RecordsEachExecution)
{
    auto const recording = pathOf("runs.h5");

    auto const result = runService({"--seconds", "1", "--record", recording});

    EXPECT_EQ(result.exitCode, 0) << result.output;
    EXPECT_EQ(rowsIn(recording), runsIn(result.output)) << result.output;
}

TEST_F(DeviceServiceTest, ShowsTheFirmwareOrThatItIsUnknown)
{
    auto const withPath = [](char const* path)
    {
        ExampleOptions options;
        options.environment = {{"PATH", path}};
        return options;
    };
    auto const known = runService({"--seconds", "1"}, withPath(DEVICE_COMMANDS ":/usr/bin:/bin"));
    auto const unknown = runService({"--seconds", "1"}, withPath("/usr/bin:/bin"));

    EXPECT_THAT(known.output, HasSubstr("\nfirmware 1.2.3, compatible id tavro-board-x\n"));
    EXPECT_THAT(unknown.output, HasSubstr("\nfirmware unknown, compatible id unknown\n"));
    EXPECT_EQ(unknown.exitCode, 0);
}

TEST_F(DeviceServiceTest, ShowsAtMostOnePlainStatusLineASecondWhereThereIsNoTerminal)
{
    auto const result = runService({"--seconds", "2"});

    EXPECT_THAT(countOf(result.output, "pressure [0-9.]+ bar \\| load"), AllOf(Ge(1), Le(2))) << result.output;
    EXPECT_THAT(result.output, Not(HasSubstr("\033")));
    EXPECT_THAT(result.output, Not(HasSubstr("\r")));
}

TEST_F(DeviceServiceTest, StopsCleanlyAtEitherSignal)
{
    for (int const signalNumber : {SIGINT, SIGTERM})
    {
        RunningProgram sut(DEVICE_SERVICE, {"--seconds", "600"});
        EXPECT_TRUE(sut.showsLineWith("| upload "));

        sut.send(signalNumber);

        EXPECT_EQ(sut.status(), 0);
        EXPECT_THAT(runsIn(sut.wholeOutput()), hasEachFunctionWithRuns()) << sut.wholeOutput();
    }
}

TEST_F(DeviceServiceTest, ShowsTheAddressesAndTheirChangesAndEndsEvenIfTheyCannotBeFollowed)
{
    if (auto const refusal = networkNamespaceRefusal())
    {
        GTEST_SKIP() << *refusal;
    }
    inNetworkNamespace(
        []
        {
            NetworkControl control;
            control.addAddress("lo", "10.0.0.1");
            RunningProgram sut(DEVICE_SERVICE, {"--seconds", "600"});

            EXPECT_TRUE(sut.showsLineWith("| addresses 10.0.0.1 |"));
            control.addAddress("lo", "10.0.0.2");
            EXPECT_TRUE(sut.showsLineWith("| addresses 10.0.0.1 10.0.0.2, last change +10.0.0.2 |"));
            control.addAddress("lo", "fd00::1"); // reported without IFA_LOCAL
            EXPECT_TRUE(
                sut.showsLineWith("| addresses 10.0.0.1 10.0.0.2, last change +10.0.0.2, no longer followed |"));
            sut.send(SIGTERM);

            EXPECT_EQ(sut.status(), 0);
            EXPECT_EQ(countOf(sut.wholeOutput(), "processAllNetlinkMessages: ignoring exception"), 1);
        });
}

TEST_F(DeviceServiceTest, SaysNothingOfTheSocketThatItClosesInTheEnd)
{
    auto const result = runService({"--seconds", "1"});

    EXPECT_EQ(result.exitCode, 0) << result.output;
    EXPECT_THAT(result.output, Not(HasSubstr("LocalIps")));
}

TEST_F(DeviceServiceTest, BadOptionsEndItWithASentenceAndStatusTwo)
{
    std::vector<std::vector<std::string>> const bad{{"--strategy", "both"},
                                                    {"--seconds", "0"},
                                                    {"--seconds", "soon"},
                                                    {"--log", "loud"},
                                                    {"--no-such-option"},
                                                    {"--timeline", "/nowhere/timeline.svg"},
                                                    {"--record", "/nowhere/runs.h5"}};
    for (auto const& arguments : bad)
    {
        auto const result = runService(arguments);

        EXPECT_EQ(result.exitCode, 2) << arguments.front();
        EXPECT_THAT(result.output, StartsWith("device_service: ")) << arguments.front();
        EXPECT_THAT(result.output, HasSubstr(arguments.back())) << arguments.front();
    }
}

TEST_F(DeviceServiceTest, TakesItsNameFromTheDescription)
{
    auto const description = pathOf("device.xml");
    std::ofstream(description) << R"(<root xmlns="urn:schemas-upnp-org:device-1-0"><device>
        <friendlyName>Pump &amp; valve</friendlyName></device></root>)";

    auto const shipped = runService({"--seconds", "1"});
    auto const given =
        runService({"--seconds", "1", "--log", "info", "--strategy", "sequential", "--description", description});

    EXPECT_THAT(shipped.output, StartsWith("Pressure sensor, hall 3\n"));
    EXPECT_EQ(given.exitCode, 0) << given.output;
    EXPECT_THAT(given.output, HasSubstr("PeriodicCallerManager(Pump & valve)"));
}

TEST_F(DeviceServiceTest, DescriptionWithoutANameEndsItWithStatusTwo)
{
    auto const description = pathOf("device.xml");
    std::ofstream(description) << "<root/>";
    std::map<std::string, std::string> const reasons{
        {description, "None or more than one node found"},
        {"/nowhere/device.xml", "Failed to read file: /nowhere/device.xml"}};
    for (auto const& [file, reason] : reasons)
    {
        auto const result = runService({"--description", file});

        EXPECT_EQ(result.exitCode, 2) << file;
        EXPECT_THAT(result.output, EndsWith("device_service: no name in " + file + ": " + reason + "\n"));
    }
}

TEST_F(DeviceServiceTest, HelpNamesEachOptionAndSucceeds)
{
    auto const result = runService({"--help"});

    EXPECT_EQ(result.exitCode, 0);
    for (char const* const option : {"--strategy", "--seconds", "--description", "--timeline", "--record", "--log"})
    {
        EXPECT_THAT(result.output, HasSubstr(option));
    }
}

}

}
