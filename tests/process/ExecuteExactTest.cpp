// Failures after the fork in the exact build: the child is left to the caller, or goes on in his code.

#include "process/ExecuteAppFixture.h"

#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <stdexcept>

namespace Halden::Tavro::Utils
{

namespace
{

using namespace TestSupport;
using Log::Severity;
using testing::ElementsAre;

class ExecuteAppExactTest : public ExecuteAppFixture
{
};

class ExecuteExactTest : public ForkFixture
{
};

struct Attachment
{
    std::size_t call;
    char const* text;
};

// kept: who forks himself tells the failure in his own way
TEST_F(ExecuteAppExactTest, FailedDup2ThrowsInTheChild)
{
    for (auto const& [failing, text] :
         {Attachment{1, "Failed to set stdin to the pipe, error was Bad file descriptor"},
          Attachment{2, "Failed to set stdout to the pipe, error was Bad file descriptor"},
          Attachment{3, "Failed to set stderr to the pipe, error was Bad file descriptor"}})
    {
        events.clear();
        auto const result = runInChild(
            [&, failing = failing]
            {
                Pipe in;
                Pipe out;
                Pipe err;
                std::array<char*, 2> const arguments{program.data(), nullptr};
                dup2Double.reset();
                dup2Double.failCall(failing, -1, EBADF);
                try
                {
                    executeApp(in, out, &err, program.c_str(), arguments.data(), {});
                }
                catch (std::runtime_error const& error)
                {
                    events.add(error.what());
                }
                return 5;
            });

        EXPECT_EQ(result.exitCode, 5);
        EXPECT_THAT(events.list(), ElementsAre("log 5 executeApp()", text));
    }
}

// kept: the caller compares process ids
TEST_F(ExecuteExactTest, ExceptionOfAFailedDup2GoesOnInTheChildInTheCallersCode)
{
    tellOnly(true);
    dup2Double.reset();
    dup2Double.failCall(1, -1, EBADF);
    pid_t const self = getpid();

    try
    {
        auto const result = call();
        EXPECT_EQ(result.exitCode, 6);
    }
    catch (std::runtime_error const& error)
    {
        if (getpid() == self)
        {
            throw;
        }
        events.add(error.what());
        _exit(6);
    }

    EXPECT_THAT(events.list(),
                ElementsAre("pipe2 stdout.read stdout.write", "pipe2 stdin.read stdin.write", "fork",
                            "log 5 executeApp()", "close stdin.read", "close stdin.write", "close stdout.read",
                            "close stdout.write", "Failed to set stdin to the pipe, error was Bad file descriptor"));
}

TEST_F(ExecuteExactTest, ParentClosesEachNumberOnce)
{
    tellOnly(false);
    dup2Double.replace(nullptr);
    execvDouble.replace([](char const*, char* const*) { return -1; });

    call();

    EXPECT_THAT(events.list(),
                ElementsAre("log 5 execute()", "pipe2 stdout.read stdout.write", "pipe2 stdin.read stdin.write", "fork",
                            "close stdin.read", "log 5 getAppOutput()", "log 4 Timeout is set to 3600.000000s",
                            "fclose stdin.write", "close stdout.write", "log 4 Child finished", "fclose stdout.read"));
}

// kept: here and below the child is left to the caller
TEST_F(ExecuteExactTest, StdinThatCannotBeOpenedClosesEachNumberOnce)
{
    tellOnly(false);

    expectFailureToOpen("stdin.write", "Failed to open pipe to stdin for write");

    EXPECT_THAT(closings(),
                ElementsAre("close stdin.read", "close stdin.write", "close stdout.read", "close stdout.write"));
    EXPECT_GT(waitpidDouble.passOn(-1, nullptr, 0), 0);
}

TEST_F(ExecuteExactTest, StdoutThatCannotBeOpenedClosesEachNumberOnce)
{
    tellOnly(false);

    expectFailureToOpen("stdout.read", "Failed to open pipe to stdout for read");

    EXPECT_THAT(closings(),
                ElementsAre("close stdin.read", "fclose stdin.write", "close stdout.read", "close stdout.write"));
    EXPECT_GT(waitpidDouble.passOn(-1, nullptr, 0), 0);
}

TEST_F(ExecuteExactTest, FailedWaitClosesEachNumberOnce)
{
    tellOnly(false);
    waitpidDouble.failCall(1, -1, ECHILD);
    log.expect(free(Severity::Error, "Failed to get status of child process"));

    EXPECT_THROW(call(), std::runtime_error);

    EXPECT_THAT(closings(),
                ElementsAre("close stdin.read", "fclose stdin.write", "close stdout.write", "fclose stdout.read"));
    EXPECT_GT(waitpidDouble.passOn(-1, nullptr, 0), 0);
}

}

}
