#include "support/RunExample.h"

#include <gmock/gmock.h>

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

TEST(RunProgramTest, OutputAndExitCodeAreShown)
{
    auto const result = runProgram({"/bin/sh", "-c", "echo text; exit 3"});

    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.output, "text\nexit code 3\n");
}

TEST(RunProgramTest, StandardInputIsPassedOn)
{
    EXPECT_EQ(runProgram({"/usr/bin/wc", "-c"}, std::string(1'000'000, 'x')).output, "1000000\nexit code 0\n");
}

TEST(RunProgramTest, ProgramThatTakesTooLongEndsWithTheSignal)
{
    EXPECT_THAT(runProgram({"--timeout", "50", "/bin/sleep", "60"}).output, EndsWith("signal 9\n"));
}

TEST(RunProgramTest, VariablesAreAdded)
{
    EXPECT_EQ(
        runProgram({"--env", "A=1", "--env", "B=x=y", "--env", "C=", "/bin/sh", "-c", "echo $A $B ${C-unset}."}).output,
        "1 x=y .\nexit code 0\n");
}

TEST(RunProgramTest, OptionsBehindTheProgramAreTheProgrammes)
{
    EXPECT_EQ(runProgram({"/bin/echo", "--timeout", "50", "--help", "-n"}).output,
              "--timeout 50 --help -n\nexit code 0\n");
}

TEST(RunProgramTest, MissingProgramIsExitCodeMinusOneWithTheReason)
{
    EXPECT_THAT(runProgram({"/no/such/program"}).output,
                EndsWith(" execve() failed with No such file or directory\nexit code -1\n"));
}

TEST(RunProgramTest, BadArgumentsAreAnsweredWithOneSentence)
{
    expectRefusal(RUN_PROGRAM, {{{}, "PROGRAM"},
                                {{"--timeout"}, "--timeout"},
                                {{"--timeout", "soon", "/bin/true"}, "--timeout"},
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

}

}
