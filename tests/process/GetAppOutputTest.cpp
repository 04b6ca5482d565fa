// getAppOutput(), with the system answering as each test wants.

#include <utils/Execute.h>

#include "process/ExecuteFixture.h"
#include "process/PipeNumbers.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <ios>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace Halden::Tavro::Utils
{

namespace
{

using namespace TestSupport;
using namespace std::chrono_literals;
using Log::Severity;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Optional;
using testing::StrEq;
using testing::ThrowsMessage;

constexpr pid_t child = 471'147'114; // above the largest process id of the kernel

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

/// getAppOutput for a child that does not exist, with waitpid's answers as the test wants.
class GetAppOutputTest : public ExecuteFixture
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
        else
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
    bool duringWrite = false;
    fcloseDouble.replace(
        [&](std::FILE* file)
        {
            duringWrite = duringWrite || BlockedSigpipe::isBlocked();
            return fcloseDouble.passOn(file);
        });
    bool duringWait = true;
    waitpidDouble.replace(
        [&](pid_t, int* status, int)
        {
            duringWait = BlockedSigpipe::isBlocked();
            *status = exited(0);
            return child;
        });

    call();

    EXPECT_TRUE(duringWrite);
    EXPECT_FALSE(duringWait);
}

}

}
