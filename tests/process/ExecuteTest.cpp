// executeApp() and execute(), with the system answering as each test wants.

#include <utils/Execute.h>

#include "process/ExecuteFixture.h"
#include "process/PipeNumbers.h"
#include "support/ChildProcess.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

namespace Halden::Tavro::Utils
{

namespace
{

using namespace TestSupport;
using namespace std::chrono_literals;
using Log::Severity;
using testing::ElementsAre;
using testing::StrEq;
using testing::ThrowsMessage;

static_assert(std::is_same_v<decltype(ExecutionResult::termSignal), std::optional<std::int8_t>>);
static_assert(std::is_same_v<decltype(ExecutionResult::exitCode), std::optional<std::int8_t>>);
static_assert(std::is_same_v<Environment, std::vector<std::pair<std::string, std::string>>>);

/// executeApp in a child of its own, whose execv tells its arguments and returns.
class ExecuteAppTest : public ExecuteFixture
{
protected:
    ExecuteAppTest()
    {
        dup2Double.replace(
            [this](int from, int to)
            {
                if (!nameOf(from).empty())
                {
                    events.add("dup2 " + nameOf(from) + " " + std::to_string(to));
                }
                return dup2Double.passOn(from, to);
            });
        setenvDouble.replace(
            [this](char const* variable, char const* value, int overwrite)
            {
                events.add(std::string("setenv ") + variable + "=" + value + " " + std::to_string(overwrite));
                return setenvDouble.passOn(variable, value, overwrite);
            });
        execvDouble.replace([this](char const* path, char* const* arguments) { return tellExecv(path, arguments); });
        tellLogLines();
    }

    int tellExecv(char const* path, char* const* arguments)
    {
        std::string event = std::string("execv ") + path;
        for (char* const* next = arguments; *next != nullptr; ++next)
        {
            event.append(" '").append(*next).append("'");
        }
        events.add(event);
        errno = ENOENT;
        return -1;
    }

    ChildResult run(bool withStderr, Environment const& environment)
    {
        return runInChild(
            [&]
            {
                Pipe in;
                Pipe out;
                Pipe err;
                name("stdin", numbersOf(in).read, numbersOf(in).write);
                name("stdout", numbersOf(out).read, numbersOf(out).write);
                name("stderr", numbersOf(err).read, numbersOf(err).write);
                std::array<char*, 3> const arguments{program.data(), argument.data(), nullptr};
                executeApp(in, out, withStderr ? &err : nullptr, program.c_str(), arguments.data(), environment);
                return 0;
            });
    }

    std::string program{"/program"};
    std::string argument{"argument"};
};

TEST_F(ExecuteAppTest, StepsComeInOrder)
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

struct Attachment
{
    std::size_t call;
    char const* text;
};

TEST_F(ExecuteAppTest, FailedDup2ThrowsInTheChild)
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

/// execute with a real child, in which execv may be replaced.
class ExecuteTest : public ExecuteAppTest
{
protected:
    ExecuteTest()
    {
        pipe2Double.replace(
            [this](int* ends, int flags)
            {
                int const result = pipe2Double.passOn(ends, flags);
                if (flags == O_CLOEXEC && result == 0)
                {
                    name(pipe2Double.count() == 1 ? "stdout" : "stdin", ends[0], ends[1]);
                    events.add("pipe2 " + nameOf(ends[0]) + " " + nameOf(ends[1]));
                }
                return result;
            });
        forkDouble.replace(
            [this]
            {
                events.add("fork");
                pid_t const result = forkDouble.passOn();
                isChild = result == 0;
                return result;
            });
        waitpidDouble.replace([](pid_t process, int* status, int) { return waitpidDouble.passOn(process, status, 0); });
    }

    ExecutionResult call(std::vector<std::string> const& arguments = {}, Environment const& environment = {})
    {
        std::istringstream const input("input");
        return execute("/program", arguments, environment, input, 1h);
    }

    /// Keeps the events of one of the two processes only.
    void tellOnly(bool child)
    {
        closeDouble.replace([this, child](int descriptor)
                            { return isChild == child ? closeAndTell(descriptor) : closeDouble.passOn(descriptor); });
        fcloseDouble.replace([this, child](std::FILE* file)
                             { return isChild == child ? fcloseAndTell(file) : fcloseDouble.passOn(file); });
        log.onLine(
            [this, child](LogLine const& line)
            {
                if (isChild == child)
                {
                    events.add("log " + std::to_string(static_cast<int>(line.severity)) + " " + line.text);
                }
            });
    }

    std::vector<std::string> closings() const
    {
        auto all = events.list();
        auto const isOther = [](std::string const& event)
        { return event.rfind("close ", 0) != 0 && event.rfind("fclose ", 0) != 0; };
        all.erase(std::remove_if(all.begin(), all.end(), isOther), all.end());
        return all;
    }

    bool isChild{false};
};

TEST_F(ExecuteTest, ParentClosesEachNumberOnce)
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

TEST_F(ExecuteTest, ChildClosesEachNumberOnce)
{
    tellOnly(true);

    call({"one", "", "a b"}, {{"A", "1"}});

    EXPECT_THAT(events.list(),
                ElementsAre("pipe2 stdout.read stdout.write", "pipe2 stdin.read stdin.write", "fork",
                            "log 5 executeApp()", "dup2 stdin.read 0", "dup2 stdout.write 1", "close stdin.read",
                            "close stdin.write", "close stdout.read", "close stdout.write", "setenv A=1 1",
                            "execv /program '/program' 'one' '' 'a b'",
                            "log 1 execve() failed with No such file or directory"));
}

TEST_F(ExecuteTest, ProgramThatCannotBeStartedIsNoException)
{
    auto const result = call();

    EXPECT_EQ(result.exitCode, -1);
    EXPECT_FALSE(result.termSignal.has_value());
    EXPECT_EQ(result.output, "");
}

TEST_F(ExecuteTest, ArgumentVectorPointsIntoTheCallersStrings)
{
    std::string const path("/program");
    std::vector<std::string> const arguments{"a", "a long argument that no short string holds"};
    execvDouble.replace(
        [&](char const* given, char* const* vector)
        {
            bool const same = given == path.c_str() && vector[0] == path.c_str() && vector[1] == arguments[0].c_str() &&
                              vector[2] == arguments[1].c_str() && vector[3] == nullptr;
            return same ? 1 : 2;
        });
    std::istringstream const input;

    EXPECT_EQ(execute(path, arguments, {}, input, 1h).exitCode, 1);
}

TEST_F(ExecuteTest, PipesOfExecuteAreCloseOnExecFromTheStart)
{
    call();

    ASSERT_GE(pipe2Double.count(), 2U);
    EXPECT_EQ(std::get<1>(pipe2Double.calls()[0]), O_CLOEXEC);
    EXPECT_EQ(std::get<1>(pipe2Double.calls()[1]), O_CLOEXEC);
}

TEST_F(ExecuteTest, FailedForkThrowsLogsNothingAndClosesEachNumberOnce)
{
    forkDouble.failCall(1, -1, EAGAIN);

    EXPECT_THAT([this] { call(); },
                ThrowsMessage<std::runtime_error>(StrEq("Failed to fork to execute the other process")));

    EXPECT_THAT(events.list(),
                ElementsAre("log 5 execute()", "pipe2 stdout.read stdout.write", "pipe2 stdin.read stdin.write",
                            "close stdin.read", "close stdin.write", "close stdout.read", "close stdout.write"));
}

TEST_F(ExecuteTest, FailedFirstPipeThrowsBeforeAnyFork)
{
    pipe2Double.failCall(1, -1, EMFILE);

    EXPECT_THAT([this] { call(); }, ThrowsMessage<std::runtime_error>(StrEq("Failed to create pipe")));

    EXPECT_THAT(events.list(), ElementsAre("log 5 execute()"));
}

TEST_F(ExecuteTest, FailedSecondPipeThrowsAndClosesTheFirst)
{
    pipe2Double.failCall(2, -1, EMFILE);

    EXPECT_THAT([this] { call(); }, ThrowsMessage<std::runtime_error>(StrEq("Failed to create pipe")));

    EXPECT_THAT(events.list(), ElementsAre("log 5 execute()", "pipe2 stdout.read stdout.write", "close stdout.read",
                                           "close stdout.write"));
}

TEST_F(ExecuteTest, StdinThatCannotBeOpenedClosesEachNumberOnce)
{
    tellOnly(false);
    fdopenDouble.failCall(1, nullptr, ENOMEM);
    log.expect(free(Severity::Error, "Failed to open pipe to stdin for write"));

    EXPECT_THROW(call(), std::runtime_error);

    EXPECT_THAT(closings(),
                ElementsAre("close stdin.read", "close stdin.write", "close stdout.read", "close stdout.write"));
    EXPECT_GT(waitpidDouble.passOn(-1, nullptr, 0), 0); // the child is left to the caller
}

TEST_F(ExecuteTest, StdoutThatCannotBeOpenedClosesEachNumberOnce)
{
    tellOnly(false);
    fdopenDouble.failCall(2, nullptr, ENOMEM);
    log.expect(free(Severity::Error, "Failed to open pipe to stdout for read"));

    EXPECT_THROW(call(), std::runtime_error);

    EXPECT_THAT(closings(),
                ElementsAre("close stdin.read", "fclose stdin.write", "close stdout.read", "close stdout.write"));
    EXPECT_GT(waitpidDouble.passOn(-1, nullptr, 0), 0);
}

TEST_F(ExecuteTest, FailedWaitClosesEachNumberOnce)
{
    tellOnly(false);
    waitpidDouble.failCall(1, -1, ECHILD);
    log.expect(free(Severity::Error, "Failed to get status of child process"));

    EXPECT_THROW(call(), std::runtime_error);

    EXPECT_THAT(closings(),
                ElementsAre("close stdin.read", "fclose stdin.write", "close stdout.write", "fclose stdout.read"));
    EXPECT_GT(waitpidDouble.passOn(-1, nullptr, 0), 0);
}

TEST_F(ExecuteTest, ExceptionOfAFailedDup2GoesOnInTheChildInTheCallersCode)
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

}

}
