// How getAppOutput() waits in the exact build: input, looks 10 ms apart and output, one after the other.

#include "process/GetAppOutputFixture.h"

#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstddef>
#include <sstream>
#include <stdexcept>
#include <string>

namespace Halden::Tavro::Utils
{

namespace
{

using namespace TestSupport;
using namespace std::chrono_literals;
using Log::Severity;
using testing::ElementsAre;

bool isSigpipeBlocked()
{
    sigset_t mask;
    pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    return sigismember(&mask, SIGPIPE) == 1;
}

class GetAppOutputExactTest : public GetAppOutputFixture
{
};

// kept: the time begins when the input is written, which may take as long as the program likes
TEST_F(GetAppOutputExactTest, InputThenLooksThenOutputComeInThisOrder)
{
    answers = {running, running, {child, exited(0)}};
    tellLogLines();

    call();

    EXPECT_THAT(events.list(), ElementsAre("log 5 getAppOutput()", "log 4 Timeout is set to 3600.000000s",
                                           "fclose stdin.write", "close stdout.write", "poll", onePeriod, "poll",
                                           onePeriod, "poll", "log 4 Child finished", "fclose stdout.read"));
}

TEST_F(GetAppOutputExactTest, EachNumberIsClosedOnceAlsoByTheDestructorsOfThePipes)
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

TEST_F(GetAppOutputExactTest, LostChildClosesWhatWasOpened)
{
    answers = {running, {-1, ECHILD}};
    log.expect(free(Severity::Error, "Failed to get status of child process"));

    EXPECT_THROW(call(), std::runtime_error);

    EXPECT_THAT(events.list(), ElementsAre("fclose stdin.write", "close stdout.write", "poll", onePeriod, "poll",
                                           "fclose stdout.read"));
}

// kept: the child is left to the caller, who alone knows what is to become of it
TEST_F(GetAppOutputExactTest, EndThatCannotBeOpenedLeavesTheChildAlone)
{
    for (std::string const end : {"stdin.write", "stdout.read"})
    {
        failToOpen(end);
        log.expect(testing::Field(&LogLine::severity, Severity::Error));

        EXPECT_THROW(call(), std::runtime_error) << end;

        EXPECT_EQ(waitpidDouble.count(), 0U) << end;
        EXPECT_EQ(killDouble.count(), 0U) << end;
    }
}

struct Limit
{
    std::chrono::milliseconds timeout;
    std::size_t polls;
};

TEST_F(GetAppOutputExactTest, TimeoutGivesOnePollPerTenMillisecondsAndOneMore)
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

TEST_F(GetAppOutputExactTest, InterruptedSleepIsResumedWithTheTimeLeft)
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

TEST_F(GetAppOutputExactTest, SleepThatFailsOtherwiseIsNotRepeated)
{
    answers = {running};
    nanosleepDouble.failCall(1, -1, EINVAL);

    call();

    EXPECT_EQ(nanosleepDouble.count(), 1U);
    EXPECT_EQ(eventCount("poll"), 2U);
}

TEST_F(GetAppOutputExactTest, InterruptedPollIsRepeatedWithoutASleep)
{
    answers = {interrupted, interrupted, {child, exited(7)}};

    auto const result = call();

    EXPECT_EQ(result.exitCode, 7);
    EXPECT_EQ(eventCount("poll"), 3U);
    EXPECT_EQ(nanosleepDouble.count(), 0U);
}

TEST_F(GetAppOutputExactTest, InterruptedPollsCount)
{
    answers.assign(11, interrupted);

    call(100ms);

    EXPECT_EQ(eventCount("poll"), 11U);
}

// kept: an interrupted look is no answer, and without one there is nothing to kill
TEST_F(GetAppOutputExactTest, InterruptedLastPollLeavesTheChildAloneAndGivesNeither)
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

TEST_F(GetAppOutputExactTest, LastPollAnsweredAfterAnInterruptedOneKills)
{
    answers = {interrupted, interrupted, running, {child, SIGKILL}};

    auto const result = call(20ms);

    EXPECT_EQ(result.termSignal, SIGKILL);
    EXPECT_EQ(killDouble.count(), 1U);
}

TEST_F(GetAppOutputExactTest, ChildThatEndsAtTheLastPollIsNotKilled)
{
    answers = {running, running, {child, exited(5)}};

    auto const result = call(20ms);

    EXPECT_EQ(result.exitCode, 5);
    EXPECT_EQ(killDouble.count(), 0U);
}

TEST_F(GetAppOutputExactTest, ChildThatTakesTooLongIsKilledThenReaped)
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

// kept: an interrupted wait is no answer, and the zombie is left to the caller
TEST_F(GetAppOutputExactTest, InterruptedReapingGivesNeither)
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

TEST_F(GetAppOutputExactTest, SigpipeIsBlockedWhileTheInputIsWrittenAndNoLonger)
{
    bool duringWrite = false;
    fcloseDouble.replace(
        [&](std::FILE* file)
        {
            duringWrite = duringWrite || isSigpipeBlocked();
            return fcloseDouble.passOn(file);
        });
    bool duringWait = true;
    waitpidDouble.replace(
        [&](pid_t, int* status, int)
        {
            duringWait = isSigpipeBlocked();
            *status = exited(0);
            return child;
        });

    call();

    EXPECT_TRUE(duringWrite);
    EXPECT_FALSE(duringWait);
}

// kept: the child, which runs on, is left to the caller
TEST_F(GetAppOutputExactTest, ForbiddenKillReapsNothing)
{
    answers = {running};
    killDouble.failCall(1, -1, EPERM);
    log.expect(testing::Field(&LogLine::severity, Severity::Error));

    EXPECT_THROW(call(0ms), std::runtime_error);

    EXPECT_EQ(eventCount("wait 0"), 0U);
    EXPECT_EQ(killDouble.count(), 1U);
}

}

}
