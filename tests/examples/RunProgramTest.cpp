#include "support/RunExample.h"
#include "support/RunningProgram.h"

#include <utils/TempDir.h>

#include <gmock/gmock.h>

#include <signal.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
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

ChildResult runProgram(std::vector<std::string> const& arguments, std::string const& input = {})
{
    ExampleOptions options;
    options.input = input;
    return runExample(RUN_PROGRAM, arguments, options);
}

/// Standard input from a pipe that nobody writes to and nobody closes.
bool readFromSilence()
{
    std::array<int, 2> ends{};
    return pipe(ends.data()) == 0 && dup2(ends[0], STDIN_FILENO) == STDIN_FILENO;
}

ChildResult runProgramInSilence(std::vector<std::string> const& arguments)
{
    ExampleOptions options;
    options.prepare = readFromSilence;
    return runExample(RUN_PROGRAM, arguments, options);
}

TEST(RunProgramTest, OutputIsShownAndTheStatusIsTheProgrammes)
{
    auto const result = runProgram({"/bin/sh", "-c", "echo text; exit 200"});

    EXPECT_EQ(result.exitCode, 200);
    EXPECT_EQ(result.output, "text\n");
}

TEST(RunProgramTest, StandardInputIsPassedOn)
{
    EXPECT_EQ(runProgram({"/usr/bin/wc", "-c"}, std::string(1'000'000, 'x')).output, "1000000\n");
}

TEST(RunProgramTest, ProgramThatTakesTooLongEndsWithStatus124)
{
    EXPECT_EQ(runProgram({"--timeout", "50", "/bin/sleep", "60"}).exitCode, 124);
    EXPECT_EQ(runProgramInSilence({"--timeout", "50", "/bin/sleep", "60"}).exitCode, 124);
}

TEST(RunProgramTest, EndOfTheProgramIsNotHeldUpByAnInputThatHasNone)
{
    auto const result = runProgramInSilence({"--timeout", "100000", "/bin/sh", "-c", "echo text; exit 3"});

    EXPECT_EQ(result.exitCode, 3);
    EXPECT_EQ(result.output, "text\n");
}

TEST(RunProgramTest, SignalThatEndsTheProgramIsInTheStatus)
{
    EXPECT_EQ(runProgram({"/bin/sh", "-c", "kill -USR1 $$"}).exitCode, 128 + SIGUSR1);
    EXPECT_EQ(runProgram({"/bin/sh", "-c", "kill -KILL $$"}).exitCode, 128 + SIGKILL); // not by the time-out
}

TEST(RunProgramTest, SigtermGoesOnToTheProgram)
{
    RunningProgram sut(RUN_PROGRAM, {"--timeout", "100000", "/bin/sh", "-c",
                                     "trap 'echo got it; exit 5' TERM; echo ready >&2; while :; do sleep 0.01; done"});
    EXPECT_EQ(sut.line(), "ready");

    sut.send(SIGTERM);

    EXPECT_EQ(sut.line(), "got it");
    EXPECT_EQ(sut.status(), 5);
}

TEST(RunProgramTest, SigtermThatEndsTheProgramIsInTheStatus)
{
    RunningProgram sut(RUN_PROGRAM, {"--timeout", "100000", "/bin/sh", "-c", "echo ready >&2; exec sleep 100"});
    EXPECT_EQ(sut.line(), "ready");

    sut.send(SIGTERM);

    EXPECT_EQ(sut.status(), 128 + SIGTERM);
}

TEST(RunProgramTest, ProgramStartsWithTheSignalsAsTheyWere)
{
    auto const result = runProgram({"/bin/cat", "/proc/self/status"});

    EXPECT_THAT(result.output,
                HasSubstr("SigBlk:\t0000000000000000\nSigIgn:\t0000000000000000\nSigCgt:\t0000000000000000\n"));
}

TEST(RunProgramTest, VariablesAreAdded)
{
    EXPECT_EQ(
        runProgram({"--env", "A=1", "--env", "B=x=y", "--env", "C=", "/bin/sh", "-c", "echo $A $B ${C-unset}."}).output,
        "1 x=y .\n");
}

TEST(RunProgramTest, OptionsBehindTheProgramAreTheProgrammes)
{
    EXPECT_EQ(runProgram({"/bin/echo", "--timeout", "50", "--help", "-n"}).output, "--timeout 50 --help -n\n");
}

TEST(RunProgramTest, DashesPartTheOptionsFromTheProgram)
{
    EXPECT_EQ(runProgram({"--timeout", "60000", "--", "/bin/echo", "--", "text"}).output, "-- text\n");
    EXPECT_EQ(runProgram({"--", "-no-such-program"}).output,
              "run_program: -no-such-program: No such file or directory\n");
}

TEST(RunProgramTest, ProgramWithoutAFolderIsFoundAsByAShell)
{
    Utils::TempDir const folder("RunProgramTest-", std::filesystem::temp_directory_path());
    auto const program = std::filesystem::path(folder.path()) / "program";
    std::filesystem::create_directories(program); // is none
    std::filesystem::path const other = folder.path() + "/other";
    std::filesystem::create_directories(other);
    std::ofstream(other / "program") << "#!/bin/sh\necho $0\n";
    ExampleOptions options;
    options.environment = {{"PATH", folder.path() + "::" + other.string() + ':' + std::getenv("PATH")}};

    EXPECT_EQ(runExample(RUN_PROGRAM, {"program"}, options).output, "run_program: program: Permission denied\n");
    std::filesystem::permissions(other / "program", std::filesystem::perms::owner_all);
    EXPECT_EQ(runExample(RUN_PROGRAM, {"program"}, options).output, (other / "program").string() + '\n');
}

TEST(RunProgramTest, MissingProgramEndsWithTheReasonAndStatus127)
{
    auto const result = runProgram({"/no/such/program"});

    EXPECT_EQ(result.exitCode, 127);
    EXPECT_EQ(result.output, "run_program: /no/such/program: No such file or directory\n");
    EXPECT_EQ(runProgram({"no-such-program"}).output, "run_program: no-such-program: No such file or directory\n");
}

TEST(RunProgramTest, ProgramThatCannotBeStartedEndsWithTheReasonAndStatus126)
{
    auto const result = runProgram({"/etc"});

    EXPECT_EQ(result.exitCode, 126);
    EXPECT_EQ(result.output, "run_program: /etc: Permission denied\n");
}

TEST(RunProgramTest, BadArgumentsAreAnsweredWithOneSentence)
{
    expectRefusal(RUN_PROGRAM, {{{}, "PROGRAM"},
                                {{"--"}, "PROGRAM"},
                                {{"--timeout"}, "--timeout"},
                                {{"--timeout", "soon", "/bin/true"}, "--timeout"},
                                {{"--timeout", "-5", "/bin/true"}, "--timeout"},
                                {{"--env", "A", "/bin/true"}, "'A' is not NAME=VALUE"},
                                {{"--env", "=1", "/bin/true"}, "'=1' is not NAME=VALUE"},
                                {{"--speed", "/bin/true"}, "--speed"}});
}

TEST(RunProgramTest, HelpNamesTheOptions)
{
    auto const result = runProgram({"--help"});

    EXPECT_EQ(result.exitCode, 0);
    EXPECT_THAT(result.output, HasSubstr("run_program [--timeout MS] [--env NAME=VALUE]... PROGRAM ARG..."));
}

TEST(RunProgramTest, VersionIsThatOfTheLibrary)
{
    expectVersion(RUN_PROGRAM);
}

TEST(RunProgramTest, StandardOutputThatCannotBeWrittenIsAnError)
{
    expectComplaintAboutFullOutput(RUN_PROGRAM, {"/bin/echo"});
}

}

}
