// What getAppOutput() hands back, logs and throws, with the system answering as each test wants.

#include "process/GetAppOutputFixture.h"
#include "process/InputThatCalls.h"

#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <ios>
#include <istream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>

namespace Halden::Tavro::Utils
{

namespace
{

using namespace TestSupport;
using namespace std::chrono_literals;
using Log::Severity;
using testing::ElementsAre;
using testing::Optional;
using testing::StrEq;
using testing::ThrowsMessage;

class GetAppOutputTest : public GetAppOutputFixture
{
protected:
    /// A call that fails at this end, and says so in the log and by its exception.
    void expectFailureToOpen(std::string const& end, std::string const& text)
    {
        failToOpen(end);
        auto const line = free(Severity::Error, text);
        log.expect(line);

        EXPECT_THAT([this] { call(); }, ThrowsMessage<std::runtime_error>(StrEq(text)));

        EXPECT_EQ(log.lines().back(), line);
    }
};

TEST_F(GetAppOutputTest, ChildThatEndsByItselfLeavesThreeLines)
{
    call(24h + 1ms);

    EXPECT_THAT(log.lines(), ElementsAre(free(Severity::Trace, "getAppOutput()"),
                                         free(Severity::Debug, "Timeout is set to 86400.001000s"),
                                         free(Severity::Debug, "Child finished")));
}

TEST_F(GetAppOutputTest, ShortInputIsWrittenAndItsEndClosedBeforeTheFirstLook)
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

TEST_F(GetAppOutputTest, InputIsReadNoFurtherOnceNobodyTakesIt)
{
    stdinPipe.close(Pipe::End::Read);
    std::istringstream const input(std::string(1'000'000, 'x'));

    getAppOutput(stdoutPipe, stdinPipe, child, input, 1h);

    EXPECT_GT(input.rdbuf()->in_avail(), 900'000);
}

/// An input of one byte, at whose end the thread is cancelled: it goes on until it writes.
// As does one that is cancelled: but of its frames the address sanitizer would keep marks, as it is not told.
TEST_F(GetAppOutputTest, ThreadThatExitsAmidItsInputUnwinds)
{
    InputThatCalls buffer([] { pthread_exit(nullptr); }, "x");
    std::istream const input(&buffer);
    bool hasReturned = false;

    std::thread(
        [&]
        {
            getAppOutput(stdoutPipe, stdinPipe, child, input, 1h);
            hasReturned = true;
        })
        .join();

    EXPECT_FALSE(hasReturned);
    EXPECT_EQ(numbersOf(stdinPipe).write, -1);
    EXPECT_EQ(eventCount("fclose stdin.write") + eventCount("close stdin.write"), 1U);
}

TEST_F(GetAppOutputTest, WhatTheChildHasLeftInThePipeIsRead)
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

// kept: callers compare with -1
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

TEST_F(GetAppOutputTest, LongestTimeoutsAreNotShortened)
{
    answers.assign(5, running);

    auto const result = call(std::chrono::milliseconds((1LL << 33) * 10)); // a limit of 0 in 32 bits

    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(eventCount("poll"), 6U);
    EXPECT_EQ(killDouble.count(), 0U);
}

TEST_F(GetAppOutputTest, LostChildIsLoggedThrowsTheReasonAndIsNotKilled)
{
    answers = {running, {-1, ECHILD}};
    rest = {-1, ECHILD};
    auto const line = free(Severity::Error, "Failed to get status of child process");
    log.expect(line);

    EXPECT_THAT([this] { call(); }, ThrowsMessage<std::runtime_error>(StrEq("No child processes")));

    EXPECT_EQ(log.lines().back(), line);
    EXPECT_EQ(killDouble.count(), 0U); // the number may be a stranger's
}

TEST_F(GetAppOutputTest, StdinThatCannotBeOpenedIsLoggedThrowsAndStaysWithItsPipe)
{
    int const number = numbersOf(stdinPipe).write;

    expectFailureToOpen("stdin.write", "Failed to open pipe to stdin for write");

    EXPECT_EQ(numbersOf(stdinPipe).write, number);
    EXPECT_EQ(closeDouble.count(), 0U);
    EXPECT_EQ(fcloseDouble.count(), 0U);
}

TEST_F(GetAppOutputTest, StdoutThatCannotBeOpenedIsLoggedThrowsAndStaysWithItsPipe)
{
    int const number = numbersOf(stdoutPipe).read;

    expectFailureToOpen("stdout.read", "Failed to open pipe to stdout for read");

    EXPECT_EQ(numbersOf(stdoutPipe).read, number);
    EXPECT_EQ(numbersOf(stdinPipe).write, -1);
    std::array<char, 16> text{};
    EXPECT_EQ(read(numbersOf(stdinPipe).read, text.data(), text.size()), 5);
    EXPECT_STREQ(text.data(), "input"); // before
}

TEST_F(GetAppOutputTest, OutputThatCannotBeReadThrowsTheReason)
{
    int const directory = open("/", O_RDONLY | O_CLOEXEC);
    dup2Double.passOn(directory, numbersOf(stdoutPipe).read);
    closeDouble.passOn(directory);

    EXPECT_THAT([this] { call(); }, ThrowsMessage<std::ios_base::failure>(
                                        StrEq("basic_filebuf::underflow error reading the file: Is a directory")));
}

}

}
