#include "support/NetworkNamespace.h"
#include "support/RunExample.h"
#include "support/RunningProgram.h"
#include "support/WaitFor.h"

#include <utils/TempDir.h>

#include <gmock/gmock.h>

#include <H5Cpp.h>

#include <signal.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <utility>
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
bool isWellFormed(std::string const& text)
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
    EXPECT_THAT(svg, HasSubstr(">Executions of the periodic functions: " + std::string(GetParam()) + "</text>"));
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
    auto const runs = runsIn(result.output);
    EXPECT_THAT(runs, Not(IsEmpty())) << result.output;
    EXPECT_EQ(rowsIn(recording), runs) << result.output;
}

TEST_F(DeviceServiceTest, KeepsTheFiguresOfItsTableInAFile)
{
    auto const file = pathOf("figures.prom");

    auto const result = runService({"--seconds", "1", "--metrics", file});

    EXPECT_EQ(result.exitCode, 0) << result.output;
    auto const runs = runsIn(result.output);
    EXPECT_THAT(runs, Not(IsEmpty())) << result.output;
    auto const figures = contentOf(file);
    for (auto const& [name, count] : runs)
    {
        EXPECT_THAT(figures, HasSubstr("\ndevice_service_function_runs_total{function=\"" + name + "\"} " +
                                       std::to_string(count) + "\n"));
    }
    EXPECT_FALSE(std::filesystem::exists(file + ".new"));
}

TEST_F(DeviceServiceTest, KeepsTheFiguresWhileItRuns)
{
    auto const file = pathOf("figures.prom");
    RunningProgram sut(DEVICE_SERVICE, {"--seconds", "600", "--metrics", file});

    EXPECT_TRUE(waitFor(
        [&]
        { return contentOf(file).find("_running_since_timestamp_seconds{function=\"upload\"}") != std::string::npos; },
        std::chrono::seconds(20)));

    sut.send(SIGTERM);
    EXPECT_EQ(sut.status(), 0);
}

TEST_F(DeviceServiceTest, LogsIntoAFileInsteadOfStandardError)
{
    auto const file = pathOf("service.log");

    auto const result = runService({"--seconds", "1", "--severity", "info", "--log", file});

    EXPECT_EQ(result.exitCode, 0) << result.output;
    EXPECT_THAT(contentOf(file), HasSubstr("+schedulerThread: starting"));
    EXPECT_THAT(result.output, Not(HasSubstr("schedulerThread")));
}

TEST_F(DeviceServiceTest, LogsToTheSystemsLogsInsteadOfStandardError)
{
    for (char const* const log : {"syslog", "journal"})
    {
        auto const result = runService({"--seconds", "1", "--severity", "info", "--log", log});

        EXPECT_EQ(result.exitCode, 0) << result.output;
        EXPECT_THAT(result.output, Not(HasSubstr("+schedulerThread: starting"))) << log;
    }
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

TEST_F(DeviceServiceTest, EndsWhereverItsSchedulerIsWhenItIsStopped)
{
    for (int i = 0; i < 20; ++i)
    {
        RunningProgram sut(DEVICE_SERVICE,
                           {"--seconds", "600", "--strategy", i % 2 == 0 ? "sequential" : "thread-pool"});
        EXPECT_TRUE(sut.showsLineWith("firmware ")); // it begins to register its functions

        sut.send(SIGTERM);

        EXPECT_EQ(sut.status(), 0);
        EXPECT_THAT(runsIn(sut.wholeOutput()), SizeIs(8)) << sut.wholeOutput();
    }
}

TEST_F(DeviceServiceTest, ShowsTheAddressesAndTheirChanges)
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
            control.addAddress("lo", "fd00::1"); // reported without IFA_LOCAL, as most are
            EXPECT_TRUE(sut.showsLineWith("| addresses 10.0.0.1 10.0.0.2 fd00::1, last change +fd00::1 |"));
            control.removeAddress("lo", "10.0.0.1");
            EXPECT_TRUE(sut.showsLineWith("| addresses 10.0.0.2 fd00::1, last change -10.0.0.1 |"));
            sut.send(SIGTERM);

            EXPECT_EQ(sut.status(), 0);
        });
}

TEST_F(DeviceServiceTest, SaysNothingOfTheMonitorThatEnds)
{
    auto const result = runService({"--seconds", "1"});

    EXPECT_EQ(result.exitCode, 0) << result.output;
    EXPECT_THAT(result.output, Not(HasSubstr("LocalIps")));
}

TEST_F(DeviceServiceTest, BadOptionsAreAnsweredWithOneSentence)
{
    expectRefusal(DEVICE_SERVICE, {{{"--strategy", "both"}, "both"},
                                   {{"--seconds", "0"}, "--seconds"},
                                   {{"--seconds", "soon"}, "--seconds"},
                                   {{"--severity", "loud"}, "loud"},
                                   {{"--no-such-option"}, "--no-such-option"}});
}

TEST_F(DeviceServiceTest, FilesThatCannotBeWrittenAreNamedWithTheReason)
{
    for (auto const& [option, file, reason] :
         {std::array{"--timeline", "/nowhere/timeline.svg", "No such file or directory"},
          {"--record", "/nowhere/runs.h5", "No such file or directory"},
          {"--metrics", "/nowhere/figures.prom", "No such file or directory"},
          {"--log", "/nowhere/service.log", "No such file or directory"},
          {"--record", "/", "Is a directory"}})
    {
        auto const result = runService({option, file});

        EXPECT_EQ(result.exitCode, 1) << file;
        EXPECT_EQ(result.output, "device_service: " + std::string(file) + ": " + reason + "\n");
    }
}

TEST_F(DeviceServiceTest, FullDiskIsTheReasonWhereItIs)
{
    auto const timeline = runService({"--seconds", "1", "--timeline", "/dev/full"});
    auto const record = runService({"--record", "/dev/full"}, {{}, {{"LSAN_OPTIONS", HDF5_SUPPRESSIONS}}});

    EXPECT_EQ(timeline.exitCode, 1);
    EXPECT_THAT(timeline.output, EndsWith("device_service: /dev/full: No space left on device\n"));
    EXPECT_EQ(record.exitCode, 1);
    EXPECT_EQ(record.output, "device_service: /dev/full: file write failed: No space left on device\n");
}

TEST_F(DeviceServiceTest, TakesItsNameFromTheDescription)
{
    auto const description = pathOf("device.xml");
    std::ofstream(description) << R"(<root xmlns="urn:schemas-upnp-org:device-1-0"><device>
        <friendlyName>Pump &amp; valve</friendlyName></device></root>)";

    auto const shipped = runService({"--seconds", "1"});
    auto const given =
        runService({"--seconds", "1", "--severity", "info", "--strategy", "sequential", "--description", description});

    EXPECT_THAT(shipped.output, StartsWith("Pressure sensor, hall 3\n"));
    EXPECT_EQ(given.exitCode, 0) << given.output;
    EXPECT_THAT(given.output, HasSubstr("PeriodicCallerManager(Pump & valve)"));
}

TEST_F(DeviceServiceTest, DescriptionWithoutANameIsNamedWithTheReason)
{
    auto const empty = pathOf("empty.xml");
    std::ofstream(empty) << "<root/>";
    auto const broken = pathOf("broken.xml");
    std::ofstream(broken) << "<root>";
    for (auto const& [file, fault] :
         {std::pair<std::string, char const*>{empty, "no name in it: None or more than one node found"},
          {broken, "no name in it: not well-formed XML"},
          {"/nowhere/device.xml", "No such file or directory"}})
    {
        auto const result = runService({"--description", file});

        EXPECT_EQ(result.exitCode, 1) << file;
        EXPECT_THAT(result.output, EndsWith("device_service: " + file + ": " + fault + "\n"));
    }
}

TEST_F(DeviceServiceTest, HelpNamesEachOptionAndSucceeds)
{
    auto const result = runService({"--help"});

    EXPECT_EQ(result.exitCode, 0);
    for (char const* const option :
         {"--strategy", "--seconds", "--description", "--timeline", "--record", "--metrics", "--log", "--severity"})
    {
        EXPECT_THAT(result.output, HasSubstr(option));
    }
}

TEST_F(DeviceServiceTest, VersionIsThatOfTheLibrary)
{
    expectVersion(DEVICE_SERVICE);
}

TEST_F(DeviceServiceTest, StandardOutputThatCannotBeWrittenIsAnErrorAndEndsItAtOnce)
{
    expectComplaintAboutFullOutput(DEVICE_SERVICE, {"--seconds", "600"});
    expectComplaintAboutFullOutput(DEVICE_SERVICE, {"--help"});
}

TEST_F(DeviceServiceTest, StandardOutputThatIsClosedLeavesTheFilesAlone)
{
    ExampleOptions options;
    options.prepare = [] { return close(STDOUT_FILENO) == 0; };
    auto const picture = pathOf("timeline.svg");

    auto const result = runService({"--seconds", "1", "--timeline", picture}, options);

    EXPECT_EQ(result.exitCode, 1);
    EXPECT_THAT(result.output, EndsWith("device_service: the standard output cannot be written\n"));
    EXPECT_TRUE(isWellFormed(contentOf(picture)));
}

}

}
