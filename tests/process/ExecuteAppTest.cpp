// What executeApp() does between fork and execv, with the system answering as each test wants.

#include "process/ExecuteAppFixture.h"

#include <array>
#include <cstdlib>
#include <string>

namespace Halden::Tavro::Utils
{

namespace
{

using namespace TestSupport;
using testing::ElementsAre;

class ExecuteAppTest : public ExecuteAppFixture
{
};

// kept: here and below the line names execve(), though execv() has failed; what reads the log looks for it
TEST_F(ExecuteAppTest, PipesAreAttachedThenClosedThenTheEnvironmentSetThenTheProgramStarted)
{
    run(false, {{"B", "1"}, {"A", "2"}, {"B", "3"}});

    EXPECT_THAT(events.list(),
                ElementsAre("log 5 executeApp()", "dup2 stdin.read 0", "dup2 stdout.write 1", "close stdin.read",
                            "close stdin.write", "close stdout.read", "close stdout.write", "setenv B=1 1",
                            "setenv A=2 1", "setenv B=3 1", "execv /program '/program' 'argument'",
                            "log 1 execve() failed with No such file or directory"));
}

TEST_F(ExecuteAppTest, StderrPipeIsUsedAndClosedAfterTheOthers)
{
    run(true, {});

    EXPECT_THAT(events.list(),
                ElementsAre("log 5 executeApp()", "dup2 stdin.read 0", "dup2 stdout.write 1", "dup2 stderr.write 2",
                            "close stdin.read", "close stdin.write", "close stdout.read", "close stdout.write",
                            "close stderr.read", "close stderr.write", "execv /program '/program' 'argument'",
                            "log 1 execve() failed with No such file or directory"));
}

TEST_F(ExecuteAppTest, FailedExecvEndsTheChildWithStatus255)
{
    EXPECT_EQ(run(false, {}).exitCode, 255);
}

TEST_F(ExecuteAppTest, StatusIsWhatExecvHasReturned)
{
    execvDouble.replace([](char const*, char* const*) { return 7; });

    EXPECT_EQ(run(false, {}).exitCode, 7);
}

TEST_F(ExecuteAppTest, NothingButExitEndsTheChild)
{
    auto const result = runInChild(
        [this]
        {
            static SharedEvents* shared = nullptr;
            shared = &events;
            std::atexit([] { shared->add("at exit"); });
            Pipe in;
            Pipe out;
            std::array<char*, 2> const arguments{program.data(), nullptr};
            executeApp(in, out, nullptr, program.c_str(), arguments.data(), {});
            return 0;
        });

    EXPECT_EQ(result.exitCode, 255);
    EXPECT_THAT(events.list(), testing::Not(testing::Contains("at exit")));
}

TEST_F(ExecuteAppTest, VariableThatIsRefusedIsLeftOut)
{
    run(false, {{"", "1"}, {"A=B", "2"}, {"C", "3"}});

    EXPECT_THAT(events.list(), testing::IsSupersetOf({"setenv C=3 1", "execv /program '/program' 'argument'"}));
}

}

}
