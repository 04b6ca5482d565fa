// Failures after the fork in the hardened build: they end the child.

#include "process/ExecuteAppFixture.h"

#include <sys/wait.h>

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
using testing::UnorderedElementsAre;

class ExecuteAppHardenedTest : public ExecuteAppFixture
{
};

class ExecuteHardenedTest : public ForkFixture
{
protected:
    ~ExecuteHardenedTest() override
    {
        EXPECT_EQ(waitpidDouble.passOn(-1, nullptr, WNOHANG), -1);
        EXPECT_EQ(errno, ECHILD);
    }

    /// The end of a program that would live for an hour, had it not failed before.
    void expectThatTheChildIsKilled()
    {
        execvDouble.replace([](char const*, char* const*) { return pause(); });
        waitpidDouble.replace(
            [this](pid_t process, int* status, int options)
            {
                pid_t const result = waitpidDouble.passOn(process, status, options);
                if (result == process)
                {
                    events.add(WIFSIGNALED(*status) && WTERMSIG(*status) == SIGKILL ? "killed" : "ended");
                }
                return result;
            });
    }
};

TEST_F(ExecuteAppHardenedTest, FailedDup2EndsTheChildWithStatus255AndWithoutALine)
{
    for (std::size_t const failing : {1U, 2U, 3U})
    {
        events.clear();
        auto const result = runInChild(
            [&]
            {
                Pipe in;
                Pipe out;
                Pipe err;
                std::array<char*, 2> const arguments{program.data(), nullptr};
                dup2Double.reset();
                dup2Double.failCall(failing, -1, EBADF);
                executeApp(in, out, &err, program.c_str(), arguments.data(), {});
                return 0;
            });

        EXPECT_EQ(result.exitCode, 255);
        EXPECT_EQ(result.output, "");
        EXPECT_THAT(events.list(), ElementsAre("log 5 executeApp()"));
    }
}

TEST_F(ExecuteHardenedTest, FailedDup2IsLikeAProgramThatCannotBeStarted)
{
    dup2Double.reset();
    dup2Double.failCall(1, -1, EBADF);

    auto const result = call();

    EXPECT_EQ(result.exitCode, -1);
    EXPECT_FALSE(result.termSignal.has_value());
    EXPECT_EQ(result.output, "");
}

TEST_F(ExecuteHardenedTest, ParentClosesEachNumberOnce)
{
    tellOnly(false);
    dup2Double.replace(nullptr);
    execvDouble.replace([](char const*, char* const*) { return -1; });

    call();

    auto const closed = closings();
    EXPECT_THAT(closed, UnorderedElementsAre("close stdin.read", "close stdin.write", "close stdout.write",
                                             "close stdout.read"));
    EXPECT_EQ(closed.front(), "close stdin.read"); // while it is open, nobody would notice a child that is gone
}

TEST_F(ExecuteHardenedTest, StdinThatCannotBeOpenedKillsTheChildAndClosesEachNumberOnce)
{
    tellOnly(false);
    expectThatTheChildIsKilled();

    expectFailureToOpen("stdin.write", "Failed to open pipe to stdin for write");

    EXPECT_THAT(closings(),
                ElementsAre("close stdin.read", "close stdin.write", "close stdout.read", "close stdout.write"));
    EXPECT_THAT(events.list(), testing::Contains("killed"));
}

TEST_F(ExecuteHardenedTest, StdoutThatCannotBeOpenedKillsTheChildAndClosesEachNumberOnce)
{
    tellOnly(false);
    expectThatTheChildIsKilled();

    expectFailureToOpen("stdout.read", "Failed to open pipe to stdout for read");

    EXPECT_THAT(closings(),
                ElementsAre("close stdin.read", "close stdin.write", "close stdout.read", "close stdout.write"));
    EXPECT_THAT(events.list(), testing::Contains("killed"));
}

TEST_F(ExecuteHardenedTest, FailedWaitKillsTheChildAndClosesEachNumberOnce)
{
    tellOnly(false);
    expectThatTheChildIsKilled();
    waitpidDouble.failCall(1, -1, EINVAL);
    pidfdOpenDouble.failCall(1, -1, ENOSYS);
    log.expect(free(Severity::Error, "Failed to get status of child process"));

    EXPECT_THROW(call(), std::runtime_error);

    EXPECT_THAT(closings(), UnorderedElementsAre("close stdin.read", "close stdin.write", "close stdout.write",
                                                 "close stdout.read"));
    EXPECT_THAT(events.list(), testing::Contains("killed"));
}

}

}
