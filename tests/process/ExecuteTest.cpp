// The steps of execute(), executeApp() and getAppOutput(), with the system answering as each test wants.

#include <utils/Execute.h>

#include "process/PipeNumbers.h"
#include "process/SharedEvents.h"
#include "support/CallDouble.h"
#include "support/ChildProcess.h"
#include "support/LogCapture.h"

#include <gmock/gmock.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <ios>
#include <map>
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

using Log::Severity;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Optional;
using testing::StrEq;
using testing::ThrowsMessage;
using TestSupport::CallDouble;
using TestSupport::isLine;
using TestSupport::LogLine;
using TestSupport::numbersOf;
using TestSupport::runInChild;
using namespace std::chrono_literals;

constexpr pid_t child = 471'147'114; // above the largest process id of the kernel

CallDouble<int(int*)> pipeDouble{"pipe"};
CallDouble<int(int*, int)> pipe2Double{"pipe2"};
CallDouble<int(int, int)> dup2Double{"dup2"};
CallDouble<int(int)> closeDouble{"close"};
CallDouble<int(std::FILE*)> fcloseDouble{"fclose"};
CallDouble<std::FILE*(int, char const*)> fdopenDouble{"fdopen"};
CallDouble<pid_t()> forkDouble{"fork"};
CallDouble<pid_t(pid_t, int*, int)> waitpidDouble{"waitpid"};
CallDouble<int(pid_t, int)> killDouble{"kill"};
CallDouble<int(timespec const*, timespec*)> nanosleepDouble{"nanosleep"};
CallDouble<int(char const*, char const*, int)> setenvDouble{"setenv"};
CallDouble<int(char const*, char* const*)> execvDouble{"execv"};

}

extern "C"
{

    int pipe(int* ends) noexcept
    {
        return pipeDouble(ends);
    }

    int pipe2(int* ends, int flags) noexcept
    {
        return pipe2Double(ends, flags);
    }

    int dup2(int from, int to) noexcept
    {
        return dup2Double(from, to);
    }

    int close(int descriptor)
    {
        return closeDouble(descriptor);
    }

    int fclose(std::FILE* file)
    {
        return fcloseDouble(file);
    }

    std::FILE* fdopen(int descriptor, char const* mode) noexcept
    {
        return fdopenDouble(descriptor, mode);
    }

    pid_t fork() noexcept
    {
        return forkDouble();
    }

    pid_t waitpid(pid_t process, int* status, int options)
    {
        return waitpidDouble(process, status, options);
    }

    int kill(pid_t process, int signalNumber) noexcept
    {
        return killDouble(process, signalNumber);
    }

    int nanosleep(timespec const* duration, timespec* left)
    {
        return nanosleepDouble(duration, left);
    }

    int setenv(char const* name, char const* value, int overwrite) noexcept
    {
        return setenvDouble(name, value, overwrite);
    }

    int execv(char const* path, char* const* arguments) noexcept
    {
        return execvDouble(path, arguments);
    }
}

namespace
{

static_assert(std::is_same_v<decltype(ExecutionResult::termSignal), std::optional<std::int8_t>>);
static_assert(std::is_same_v<decltype(ExecutionResult::exitCode), std::optional<std::int8_t>>);
static_assert(std::is_same_v<Environment, std::vector<std::pair<std::string, std::string>>>);

constexpr int exited(int code)
{
    return code << 8;
}

/// One answer of waitpid, and the status or the errno with it.
struct Answer
{
    pid_t result;
    int value;
};

constexpr Answer running{0, exited(99)}; // a status that nobody may believe
constexpr Answer interrupted{-1, EINTR};

class ExecuteTest : public testing::Test
{
protected:
    ExecuteTest()
    {
        reset();
        closeDouble.replace([this](int descriptor) { return closeAndTell(descriptor); });
        fcloseDouble.replace([this](std::FILE* file) { return fcloseAndTell(file); });
    }

    ~ExecuteTest() override { reset(); }

    static void reset()
    {
        pipeDouble.reset();
        pipe2Double.reset();
        dup2Double.reset();
        closeDouble.reset();
        fcloseDouble.reset();
        fdopenDouble.reset();
        forkDouble.reset();
        waitpidDouble.reset();
        killDouble.reset();
        nanosleepDouble.reset();
        setenvDouble.reset();
        execvDouble.reset();
    }

    /// Names the ends of a Pipe for the events.
    void name(std::string const& pipe, int readEnd, int writeEnd)
    {
        names[readEnd] = pipe + ".read";
        names[writeEnd] = pipe + ".write";
    }

    std::string nameOf(int descriptor) const
    {
        auto const found = names.find(descriptor);
        return found == names.end() ? std::string() : found->second;
    }

    int closeAndTell(int descriptor)
    {
        if (!nameOf(descriptor).empty())
        {
            events.add("close " + nameOf(descriptor));
        }
        return closeDouble.passOn(descriptor);
    }

    int fcloseAndTell(std::FILE* file)
    {
        if (!nameOf(fileno(file)).empty())
        {
            events.add("fclose " + nameOf(fileno(file)));
        }
        return fcloseDouble.passOn(file);
    }

    /// Tells the log lines as events, with the severity as a number, and leaves logging with another errno.
    void tellLogLines()
    {
        log.onLine(
            [this](LogLine const& line)
            {
                events.add("log " + std::to_string(static_cast<int>(line.severity)) + " " + line.text);
                errno = 0;
            });
    }

    static LogLine free(Severity severity, std::string const& text) { return {severity, "", text}; }

    TestSupport::LogCapture log;
    TestSupport::SharedEvents events;
    std::map<int, std::string> names;
};

/// getAppOutput for a child that does not exist, with waitpid's answers as the test wants.
class GetAppOutputTest : public ExecuteTest
{
protected:
    GetAppOutputTest()
    {
        waitpidDouble.replace([this](pid_t process, int* status, int options)
                              { return wait(process, status, options); });
        killDouble.replace(
            [this](pid_t process, int signalNumber)
            {
                events.add("kill " + std::to_string(process) + " " + std::to_string(signalNumber));
                return 0;
            });
        nanosleepDouble.replace(
            [this](timespec const* duration, timespec*)
            {
                events.add("sleep " + std::to_string(duration->tv_sec) + " s " + std::to_string(duration->tv_nsec));
                return 0;
            });
        name("stdin", numbersOf(stdinPipe).read, numbersOf(stdinPipe).write);
        name("stdout", numbersOf(stdoutPipe).read, numbersOf(stdoutPipe).write);
        log.onLine([](LogLine const&) { errno = 0; }); // logging may leave any errno
    }

    pid_t wait(pid_t process, int* status, int options)
    {
        EXPECT_EQ(process, child);
        events.add(options == WNOHANG ? "poll" : "wait " + std::to_string(options));
        Answer const answer = answered < answers.size() ? answers[answered] : rest;
        ++answered;
        if (answer.result == -1)
        {
            errno = answer.value;
        }
        else if (answer.result != 0)
        {
            *status = answer.value;
        }
        return answer.result;
    }

    ExecutionResult call(std::chrono::milliseconds timeout = 1h)
    {
        std::istringstream const input("input");
        return getAppOutput(stdoutPipe, stdinPipe, child, input, timeout);
    }

    std::size_t eventCount(std::string const& event) const
    {
        auto const all = events.list();
        return static_cast<std::size_t>(std::count(all.begin(), all.end(), event));
    }

    Pipe stdoutPipe;
    Pipe stdinPipe;
    std::vector<Answer> answers;
    Answer rest{child, exited(0)}; // once the answers are used up
    std::size_t answered{0};
};

constexpr char const* onePeriod = "sleep 0 s 10000000";

TEST_F(GetAppOutputTest, LogsItsSteps)
{
    call(1500ms);

    EXPECT_THAT(log.lines(), ElementsAre(free(Severity::Trace, "getAppOutput()"),
                                         free(Severity::Debug, "Timeout is set to 1.500000s"),
                                         free(Severity::Debug, "Child finished")));
}

TEST_F(GetAppOutputTest, StepsComeInOrder)
{
    answers = {running, running, {child, exited(0)}};
    tellLogLines();

    call();

    EXPECT_THAT(events.list(), ElementsAre("log 5 getAppOutput()", "log 4 Timeout is set to 3600.000000s",
                                           "fclose stdin.write", "close stdout.write", "poll", onePeriod, "poll",
                                           onePeriod, "poll", "log 4 Child finished", "fclose stdout.read"));
}

TEST_F(GetAppOutputTest, EachNumberIsClosedOnceAlsoByTheDestructorsOfThePipes)
{
    {
        Pipe out;
        Pipe in;
        name("out", numbersOf(out).read, numbersOf(out).write);
        name("in", numbersOf(in).read, numbersOf(in).write);
        std::istringstream const input;

        getAppOutput(out, in, child, input, 0ms);

        EXPECT_THAT(events.list(), ElementsAre("fclose in.write", "close out.write", "poll", "fclose out.read"));
        EXPECT_EQ(numbersOf(out).read, -1);
        EXPECT_EQ(numbersOf(out).write, -1);
        EXPECT_EQ(numbersOf(in).write, -1);
        events.clear();
    }

    EXPECT_THAT(events.list(), ElementsAre("close in.read"));
}

TEST_F(GetAppOutputTest, InputIsWrittenAndItsEndClosedBeforeTheFirstPoll)
{
    std::array<char, 16> text{};
    ssize_t first = 0;
    ssize_t second = -1;
    waitpidDouble.replace(
        [&](pid_t, int* status, int)
        {
            first = read(numbersOf(stdinPipe).read, text.data(), text.size());
            second = read(numbersOf(stdinPipe).read, text.data(), text.size());
            *status = exited(0);
            return child;
        });

    call();

    EXPECT_EQ(first, 5);
    EXPECT_STREQ(text.data(), "input");
    EXPECT_EQ(second, 0);
}

TEST_F(GetAppOutputTest, OutputIsReadAfterTheEndOfTheChild)
{
    int const writeEnd = dup(numbersOf(stdoutPipe).write); // the child's
    waitpidDouble.replace(
        [writeEnd](pid_t, int* status, int)
        {
            EXPECT_EQ(write(writeEnd, "a\0\xff\n", 4), 4);
            close(writeEnd);
            *status = exited(0);
            return child;
        });

    EXPECT_EQ(call().output, std::string("a\0\xff\n", 4));
}

TEST_F(GetAppOutputTest, EachExitCodeIsASignedByte)
{
    for (int code = 0; code <= 255; ++code)
    {
        Pipe out;
        Pipe in;
        std::istringstream const input;
        rest = {child, exited(code)};

        auto const result = getAppOutput(out, in, child, input, 0ms);

        EXPECT_THAT(result.exitCode, Optional(static_cast<std::int8_t>(code < 128 ? code : code - 256))) << code;
        EXPECT_FALSE(result.termSignal.has_value()) << code;
    }
}

TEST_F(GetAppOutputTest, EachSignalIsReported)
{
    constexpr int coreDumped = 0x80;
    for (int const flag : {0, coreDumped})
    {
        for (int signalNumber = 1; signalNumber <= SIGRTMAX; ++signalNumber)
        {
            Pipe out;
            Pipe in;
            std::istringstream const input;
            rest = {child, signalNumber | flag};

            auto const result = getAppOutput(out, in, child, input, 0ms);

            EXPECT_THAT(result.termSignal, Optional(static_cast<std::int8_t>(signalNumber)));
            EXPECT_FALSE(result.exitCode.has_value()) << signalNumber;
        }
    }
}

TEST_F(GetAppOutputTest, StoppedChildGivesNeither)
{
    rest = {child, 0x7f | SIGSTOP << 8}; // told to a debugger only

    auto const result = call();

    EXPECT_FALSE(result.exitCode.has_value());
    EXPECT_FALSE(result.termSignal.has_value());
}

struct Limit
{
    std::chrono::milliseconds timeout;
    std::size_t polls;
};

TEST_F(GetAppOutputTest, TimeoutGivesOnePollPerTenMillisecondsAndOneMore)
{
    for (auto const& [timeout, polls] : {Limit{0ms, 1}, Limit{-1ms, 1}, Limit{-1h, 1}, Limit{9ms, 1}, Limit{10ms, 2},
                                         Limit{19ms, 2}, Limit{20ms, 3}, Limit{1000ms, 101}})
    {
        Pipe out;
        Pipe in;
        std::istringstream const input;
        answers.assign(polls, running);
        answered = 0;
        events.clear();

        getAppOutput(out, in, child, input, timeout);

        EXPECT_EQ(eventCount("poll"), polls) << timeout.count();
        EXPECT_EQ(eventCount(onePeriod), polls) << timeout.count();
        EXPECT_EQ(eventCount("kill 471147114 9"), 1U) << timeout.count();
        EXPECT_EQ(eventCount("wait 0"), 1U) << timeout.count();
    }
}

TEST_F(GetAppOutputTest, LimitOfPollsHas64Bits)
{
    answers.assign(5, running);

    auto const result = call(std::chrono::milliseconds((1LL << 33) * 10)); // a limit of 0 in 32 bits

    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(eventCount("poll"), 6U);
    EXPECT_EQ(killDouble.count(), 0U);
}

TEST_F(GetAppOutputTest, InterruptedSleepIsResumedWithTheTimeLeft)
{
    answers = {running};
    nanosleepDouble.replace(
        [this](timespec const* duration, timespec* left)
        {
            events.add("sleep " + std::to_string(duration->tv_sec) + " s " + std::to_string(duration->tv_nsec));
            if (duration->tv_nsec == 10'000'000)
            {
                *left = {0, 4'000'000};
                errno = EINTR;
                return -1;
            }
            return 0;
        });

    call();

    EXPECT_EQ(eventCount(onePeriod), 1U);
    EXPECT_EQ(eventCount("sleep 0 s 4000000"), 1U);
    EXPECT_EQ(nanosleepDouble.count(), 2U);
}

TEST_F(GetAppOutputTest, SleepThatFailsOtherwiseIsNotRepeated)
{
    answers = {running};
    nanosleepDouble.failCall(1, -1, EINVAL);

    call();

    EXPECT_EQ(nanosleepDouble.count(), 1U);
    EXPECT_EQ(eventCount("poll"), 2U);
}

TEST_F(GetAppOutputTest, InterruptedPollIsRepeatedWithoutASleep)
{
    answers = {interrupted, interrupted, {child, exited(7)}};

    auto const result = call();

    EXPECT_EQ(result.exitCode, 7);
    EXPECT_EQ(eventCount("poll"), 3U);
    EXPECT_EQ(nanosleepDouble.count(), 0U);
}

TEST_F(GetAppOutputTest, InterruptedPollsCount)
{
    answers.assign(11, interrupted);

    call(100ms);

    EXPECT_EQ(eventCount("poll"), 11U);
}

TEST_F(GetAppOutputTest, InterruptedLastPollLeavesTheChildAloneAndGivesNeither)
{
    answers = {running, running, interrupted};
    ASSERT_EQ(write(numbersOf(stdoutPipe).write, "output", 6), 6);

    auto const result = call(20ms);

    EXPECT_FALSE(result.exitCode.has_value());
    EXPECT_FALSE(result.termSignal.has_value());
    EXPECT_EQ(result.output, "output");
    EXPECT_EQ(killDouble.count(), 0U);
    EXPECT_EQ(eventCount("wait 0"), 0U);
    EXPECT_THAT(log.lines(), ElementsAre(free(Severity::Trace, "getAppOutput()"),
                                         free(Severity::Debug, "Timeout is set to 0.020000s")));
}

TEST_F(GetAppOutputTest, LastPollAnsweredAfterAnInterruptedOneKills)
{
    answers = {interrupted, interrupted, running, {child, SIGKILL}};

    auto const result = call(20ms);

    EXPECT_EQ(result.termSignal, SIGKILL);
    EXPECT_EQ(killDouble.count(), 1U);
}

TEST_F(GetAppOutputTest, ChildThatEndsAtTheLastPollIsNotKilled)
{
    answers = {running, running, {child, exited(5)}};

    auto const result = call(20ms);

    EXPECT_EQ(result.exitCode, 5);
    EXPECT_EQ(killDouble.count(), 0U);
}

TEST_F(GetAppOutputTest, FailedPollIsLoggedAndThrowsTheReason)
{
    answers = {running, {-1, ECHILD}};
    auto const line = free(Severity::Error, "Failed to get status of child process");
    log.expect(line);

    EXPECT_THAT([this] { call(); }, ThrowsMessage<std::runtime_error>(StrEq("No child processes")));

    EXPECT_EQ(log.lines().back(), line);
    EXPECT_EQ(killDouble.count(), 0U);
    EXPECT_THAT(events.list(), ElementsAre("fclose stdin.write", "close stdout.write", "poll", onePeriod, "poll",
                                           "fclose stdout.read"));
}

TEST_F(GetAppOutputTest, ChildThatTakesTooLongIsKilledThenReaped)
{
    answers = {running, {child, SIGKILL}};
    tellLogLines();

    auto const result = call(0ms);

    EXPECT_EQ(result.termSignal, SIGKILL);
    EXPECT_FALSE(result.exitCode.has_value());
    EXPECT_THAT(events.list(), ElementsAre("log 5 getAppOutput()", "log 4 Timeout is set to 0.000000s",
                                           "fclose stdin.write", "close stdout.write", "poll", onePeriod,
                                           "log 4 Send kill signal to child process 471147114", "kill 471147114 9",
                                           "log 3 kill(471147114, SIGKILL) succeeded with 0", "wait 0",
                                           "log 4 Child finished after kill", "fclose stdout.read"));
}

TEST_F(GetAppOutputTest, ChildThatEndsByItselfBeforeTheKillReportsItsExit)
{
    answers = {running, {child, exited(4)}};

    auto const result = call(0ms);

    EXPECT_EQ(result.exitCode, 4);
    EXPECT_FALSE(result.termSignal.has_value());
}

TEST_F(GetAppOutputTest, FailedKillIsLoggedAndTheChildStillReaped)
{
    answers = {running, {child, exited(3)}};
    killDouble.failCall(1, -1, ESRCH);
    auto const line = free(Severity::Error, "kill(471147114, SIGKILL) failed with -1 errno = 3 (No such process)");
    log.expect(line);

    auto const result = call(0ms);

    EXPECT_EQ(result.exitCode, 3);
    EXPECT_THAT(log.lines(), ElementsAre(free(Severity::Trace, "getAppOutput()"),
                                         free(Severity::Debug, "Timeout is set to 0.000000s"),
                                         free(Severity::Debug, "Send kill signal to child process 471147114"), line,
                                         free(Severity::Debug, "Child finished after kill")));
}

TEST_F(GetAppOutputTest, ForbiddenKillIsLoggedTwiceAndThrows)
{
    answers = {running};
    killDouble.failCall(1, -1, EPERM);
    auto const first =
        free(Severity::Error, "kill(471147114, SIGKILL) failed with -1 errno = 1 (Operation not permitted)");
    auto const second = free(Severity::Error, "Parent has no permission to kill child process");
    log.expect(first);
    log.expect(second);

    EXPECT_THAT([this] { call(0ms); }, ThrowsMessage<std::runtime_error>(StrEq("Operation not permitted")));

    EXPECT_THAT(log.lines(),
                ElementsAre(free(Severity::Trace, "getAppOutput()"),
                            free(Severity::Debug, "Timeout is set to 0.000000s"),
                            free(Severity::Debug, "Send kill signal to child process 471147114"), first, second));
    EXPECT_EQ(eventCount("wait 0"), 0U);
}

TEST_F(GetAppOutputTest, ReapingIsRepeatedWhileItAnswersZero)
{
    answers = {running, running, running, {child, SIGKILL}};

    auto const result = call(0ms);

    EXPECT_EQ(result.termSignal, SIGKILL);
    EXPECT_EQ(eventCount("wait 0"), 3U);
}

TEST_F(GetAppOutputTest, InterruptedReapingGivesNeither)
{
    answers = {running, interrupted};
    ASSERT_EQ(write(numbersOf(stdoutPipe).write, "output", 6), 6);

    auto const result = call(0ms);

    EXPECT_FALSE(result.exitCode.has_value());
    EXPECT_FALSE(result.termSignal.has_value());
    EXPECT_EQ(result.output, "output");
    EXPECT_EQ(eventCount("wait 0"), 1U);
    EXPECT_EQ(log.lines().back(), free(Severity::Info, "kill(471147114, SIGKILL) succeeded with 0"));
}

TEST_F(GetAppOutputTest, FailedReapingIsLoggedAndThrowsTheReason)
{
    answers = {running, {-1, ECHILD}};
    auto const line = free(Severity::Error, "Failed to get status of child process");
    log.expect(line);

    EXPECT_THAT([this] { call(0ms); }, ThrowsMessage<std::runtime_error>(StrEq("No child processes")));

    EXPECT_EQ(log.lines().back(), line);
}

TEST_F(GetAppOutputTest, StdinThatCannotBeOpenedIsLoggedAndThrows)
{
    fdopenDouble.failCall(1, nullptr, ENOMEM);
    auto const line = free(Severity::Error, "Failed to open pipe to stdin for write");
    log.expect(line);

    EXPECT_THAT([this] { call(); }, ThrowsMessage<std::runtime_error>(StrEq("Failed to open pipe to stdin for write")));

    EXPECT_EQ(log.lines().back(), line);
    EXPECT_THAT(events.list(), IsEmpty());
    EXPECT_EQ(numbersOf(stdinPipe).write, std::get<0>(fdopenDouble.calls().at(0)));
}

TEST_F(GetAppOutputTest, StdoutThatCannotBeOpenedIsLoggedAndThrows)
{
    fdopenDouble.failCall(2, nullptr, ENOMEM);
    auto const line = free(Severity::Error, "Failed to open pipe to stdout for read");
    log.expect(line);

    EXPECT_THAT([this] { call(); }, ThrowsMessage<std::runtime_error>(StrEq("Failed to open pipe to stdout for read")));

    EXPECT_EQ(log.lines().back(), line);
    EXPECT_THAT(events.list(), ElementsAre("fclose stdin.write"));
    EXPECT_EQ(numbersOf(stdoutPipe).read, std::get<0>(fdopenDouble.calls().at(1)));
}

TEST_F(GetAppOutputTest, OutputThatCannotBeReadThrows)
{
    int const readEnd = numbersOf(stdoutPipe).read;
    waitpidDouble.replace(
        [readEnd](pid_t, int* status, int)
        {
            int const directory = open("/", O_RDONLY | O_CLOEXEC);
            dup2Double.passOn(directory, readEnd);
            closeDouble.passOn(directory);
            *status = exited(0);
            return child;
        });

    EXPECT_THROW(call(), std::ios_base::failure);
}

TEST_F(GetAppOutputTest, ReaderThatIsGoneDoesNotEndTheCaller)
{
    stdinPipe.close(Pipe::End::Read);
    std::istringstream const input(std::string(1'000'000, 'x'));

    auto const result = getAppOutput(stdoutPipe, stdinPipe, child, input, 0ms);

    EXPECT_EQ(result.exitCode, 0);
    sigset_t pending;
    sigpending(&pending);
    EXPECT_EQ(sigismember(&pending, SIGPIPE), 0);
    sigset_t mask;
    pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    EXPECT_EQ(sigismember(&mask, SIGPIPE), 0);
}

TEST_F(GetAppOutputTest, ShortInputForAReaderThatIsGoneDoesNotEndTheCaller)
{
    stdinPipe.close(Pipe::End::Read);

    EXPECT_EQ(call().exitCode, 0); // written only when the buffer is flushed
}

/// SIGPIPE blocked by the calling thread, as in services that watch for signals on a thread of their own.
class BlockedSigpipe
{
public:
    BlockedSigpipe()
    {
        sigemptyset(&sigpipe);
        sigaddset(&sigpipe, SIGPIPE);
        pthread_sigmask(SIG_BLOCK, &sigpipe, &before);
    }

    ~BlockedSigpipe()
    {
        take();
        pthread_sigmask(SIG_SETMASK, &before, nullptr);
    }

    BlockedSigpipe(BlockedSigpipe const&) = delete;
    BlockedSigpipe& operator=(BlockedSigpipe const&) = delete;

    /// @return whether one was pending
    bool take() const
    {
        timespec const noTime{};
        return sigtimedwait(&sigpipe, nullptr, &noTime) == SIGPIPE;
    }

    static bool isBlocked()
    {
        sigset_t mask;
        pthread_sigmask(SIG_SETMASK, nullptr, &mask);
        return sigismember(&mask, SIGPIPE) == 1;
    }

private:
    sigset_t sigpipe{};
    sigset_t before{};
};

TEST_F(GetAppOutputTest, SigpipeBlockedByTheCallerStaysBlockedAndNoneIsLeft)
{
    BlockedSigpipe const blocked;
    stdinPipe.close(Pipe::End::Read);

    call();

    EXPECT_TRUE(BlockedSigpipe::isBlocked());
    EXPECT_FALSE(blocked.take());
}

TEST_F(GetAppOutputTest, SigpipeThatWasPendingBeforeStaysPending)
{
    BlockedSigpipe const blocked;
    pthread_kill(pthread_self(), SIGPIPE);
    stdinPipe.close(Pipe::End::Read);

    call();

    EXPECT_TRUE(blocked.take());
}

TEST_F(GetAppOutputTest, SigpipeIsBlockedWhileTheInputIsWrittenAndNoLonger)
{
    bool duringWait = true;
    waitpidDouble.replace(
        [&](pid_t, int* status, int)
        {
            duringWait = BlockedSigpipe::isBlocked();
            *status = exited(0);
            return child;
        });

    call();

    EXPECT_FALSE(duringWait);
}

/// executeApp in a child of its own, whose execv tells its arguments and returns.
class ExecuteAppTest : public ExecuteTest
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
        for (char* const* argument = arguments; *argument != nullptr; ++argument)
        {
            event.append(" '").append(*argument).append("'");
        }
        events.add(event);
        errno = ENOENT;
        return -1;
    }

    TestSupport::ChildResult run(bool withStderr, Environment const& environment)
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
            static TestSupport::SharedEvents* shared = nullptr;
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
class WholeExecuteTest : public ExecuteAppTest
{
protected:
    WholeExecuteTest()
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

TEST_F(WholeExecuteTest, ParentClosesEachNumberOnce)
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

TEST_F(WholeExecuteTest, ChildClosesEachNumberOnce)
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

TEST_F(WholeExecuteTest, ProgramThatCannotBeStartedIsNoException)
{
    auto const result = call();

    EXPECT_EQ(result.exitCode, -1);
    EXPECT_FALSE(result.termSignal.has_value());
    EXPECT_EQ(result.output, "");
}

TEST_F(WholeExecuteTest, ArgumentVectorPointsIntoTheCallersStrings)
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

TEST_F(WholeExecuteTest, PipesOfExecuteAreCloseOnExecFromTheStart)
{
    call();

    EXPECT_EQ(pipeDouble.count(), 0U);
    ASSERT_GE(pipe2Double.count(), 2U);
    EXPECT_EQ(std::get<1>(pipe2Double.calls()[0]), O_CLOEXEC);
    EXPECT_EQ(std::get<1>(pipe2Double.calls()[1]), O_CLOEXEC);
}

TEST_F(WholeExecuteTest, FailedForkThrowsLogsNothingAndClosesEachNumberOnce)
{
    forkDouble.failCall(1, -1, EAGAIN);

    EXPECT_THAT([this] { call(); },
                ThrowsMessage<std::runtime_error>(StrEq("Failed to fork to execute the other process")));

    EXPECT_THAT(events.list(),
                ElementsAre("log 5 execute()", "pipe2 stdout.read stdout.write", "pipe2 stdin.read stdin.write",
                            "close stdin.read", "close stdin.write", "close stdout.read", "close stdout.write"));
}

TEST_F(WholeExecuteTest, FailedFirstPipeThrowsBeforeAnyFork)
{
    pipe2Double.failCall(1, -1, EMFILE);

    EXPECT_THAT([this] { call(); }, ThrowsMessage<std::runtime_error>(StrEq("Failed to create pipe")));

    EXPECT_THAT(events.list(), ElementsAre("log 5 execute()"));
}

TEST_F(WholeExecuteTest, FailedSecondPipeThrowsAndClosesTheFirst)
{
    pipe2Double.failCall(2, -1, EMFILE);

    EXPECT_THAT([this] { call(); }, ThrowsMessage<std::runtime_error>(StrEq("Failed to create pipe")));

    EXPECT_THAT(events.list(), ElementsAre("log 5 execute()", "pipe2 stdout.read stdout.write", "close stdout.read",
                                           "close stdout.write"));
}

TEST_F(WholeExecuteTest, StdinThatCannotBeOpenedClosesEachNumberOnce)
{
    tellOnly(false);
    fdopenDouble.failCall(1, nullptr, ENOMEM);
    log.expect(free(Severity::Error, "Failed to open pipe to stdin for write"));

    EXPECT_THROW(call(), std::runtime_error);

    EXPECT_THAT(closings(),
                ElementsAre("close stdin.read", "close stdin.write", "close stdout.read", "close stdout.write"));
    EXPECT_GT(waitpidDouble.passOn(-1, nullptr, 0), 0); // the child is left to the caller
}

TEST_F(WholeExecuteTest, StdoutThatCannotBeOpenedClosesEachNumberOnce)
{
    tellOnly(false);
    fdopenDouble.failCall(2, nullptr, ENOMEM);
    log.expect(free(Severity::Error, "Failed to open pipe to stdout for read"));

    EXPECT_THROW(call(), std::runtime_error);

    EXPECT_THAT(closings(),
                ElementsAre("close stdin.read", "fclose stdin.write", "close stdout.read", "close stdout.write"));
    EXPECT_GT(waitpidDouble.passOn(-1, nullptr, 0), 0);
}

TEST_F(WholeExecuteTest, FailedWaitClosesEachNumberOnce)
{
    tellOnly(false);
    waitpidDouble.failCall(1, -1, ECHILD);
    log.expect(free(Severity::Error, "Failed to get status of child process"));

    EXPECT_THROW(call(), std::runtime_error);

    EXPECT_THAT(closings(),
                ElementsAre("close stdin.read", "fclose stdin.write", "close stdout.write", "fclose stdout.read"));
    EXPECT_GT(waitpidDouble.passOn(-1, nullptr, 0), 0);
}

TEST_F(WholeExecuteTest, ExceptionOfAFailedDup2GoesOnInTheChildInTheCallersCode)
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
