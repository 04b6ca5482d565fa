#include "support/ChildProcess.h"

#include <gmock/gmock.h>

#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <string>
#include <vector>

using namespace Halden::Tavro::TestSupport;
using namespace testing;

namespace
{

ChildResult runProgram(std::vector<std::string> arguments, std::string const& input = {})
{
    return runInChild(
        [&]
        {
            int const file = memfd_create("input", 0);
            if (write(file, input.data(), input.size()) != static_cast<ssize_t>(input.size()) ||
                lseek(file, 0, SEEK_SET) != 0 || dup2(file, STDIN_FILENO) != STDIN_FILENO)
            {
                return 126;
            }
            arguments.insert(arguments.begin(), RUN_PROGRAM);
            std::vector<char*> pointers;
            for (auto& argument : arguments)
            {
                pointers.push_back(argument.data());
            }
            pointers.push_back(nullptr);
            execv(RUN_PROGRAM, pointers.data());
            return 127;
        });
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
    for (std::vector<std::string> const& arguments : {std::vector<std::string>{},
                                                      {"--timeout"},
                                                      {"--timeout", "soon", "/bin/true"},
                                                      {"--env", "A", "/bin/true"},
                                                      {"--env", "=1", "/bin/true"},
                                                      {"--speed", "/bin/true"}})
    {
        auto const result = runProgram(arguments);

        EXPECT_EQ(result.exitCode, 2);
        EXPECT_THAT(result.output, MatchesRegex("run_program: [^\n]+\n"));
    }
}

TEST(RunProgramTest, HelpNamesTheOptions)
{
    auto const result = runProgram({"--help"});

    EXPECT_EQ(result.exitCode, 0);
    EXPECT_THAT(result.output, HasSubstr("run_program [--timeout MS] [--env NAME=VALUE]... PROGRAM ARG..."));
}

}
