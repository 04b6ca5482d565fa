// execute() with the programs of this machine.

#include <utils/Execute.h>

#include "process/InputThatCalls.h"
#include "process/Programs.h"
#include "support/ChildProcess.h"
#include "support/LogCapture.h"
#include "support/Resources.h"

#include <gmock/gmock.h>

#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdlib>
#include <filesystem>
#include <istream>
#include <sstream>
#include <stdexcept>
#include <streambuf>
#include <string>
#include <utility>
#include <vector>

namespace Halden::Tavro::Utils
{

namespace
{

using namespace TestSupport;
using namespace std::chrono_literals;
using Log::Severity;
using testing::HasSubstr;
using testing::Optional;

/// Hands out a text in pieces of that size.
class InputInPieces : public std::streambuf
{
public:
    InputInPieces(std::string text, std::ptrdiff_t size)
        : text(std::move(text))
        , size(size)
    {
        setg(this->text.data(), this->text.data(), this->text.data());
    }

protected:
    int_type underflow() override
    {
        auto* const next = egptr();
        auto const left = text.data() + text.size() - next;
        setg(next, next, next + std::min(size, left));
        return left == 0 ? traits_type::eof() : traits_type::to_int_type(*next);
    }

private:
    std::string text;
    std::ptrdiff_t const size;
};

class ExecuteProgramTest : public testing::Test
{
protected:
    ~ExecuteProgramTest() override { EXPECT_FALSE(hasChildren()); }

    LogCapture log;
};

TEST_F(ExecuteProgramTest, ExitStatusAndOutputAreHandedBack)
{
    auto const result = shell("echo text; exit 3");

    EXPECT_THAT(result.exitCode, Optional(3));
    EXPECT_FALSE(result.termSignal.has_value());
    EXPECT_EQ(result.output, "text\n");
}

TEST_F(ExecuteProgramTest, ExitStatusFrom128OnIsNegative)
{
    EXPECT_THAT(shell("exit 127").exitCode, Optional(127));
    EXPECT_THAT(shell("exit 128").exitCode, Optional(-128));
    EXPECT_THAT(shell("exit 255").exitCode, Optional(-1));
}

TEST_F(ExecuteProgramTest, SignalThatEndsTheProgramIsHandedBack)
{
    for (int const signalNumber : {SIGHUP, SIGKILL, SIGPIPE, SIGTERM})
    {
        signal(signalNumber, SIG_DFL); // else a program started under nohup(1) would ignore it

        auto const result = shell("echo text; kill -" + std::to_string(signalNumber) + " $$");

        EXPECT_THAT(result.termSignal, Optional(signalNumber));
        EXPECT_FALSE(result.exitCode.has_value());
        EXPECT_EQ(result.output, "text\n");
    }
}

TEST_F(ExecuteProgramTest, PathIsArgumentZeroAndArgumentsAreNotTakenApart)
{
    EXPECT_EQ(run("/bin/sh", {"-c", "printf '[%s]' \"$0\" \"$@\"", "zero", "", "a b", "*", "$HOME"}).output,
              "[zero][][a b][*][$HOME]");
    EXPECT_EQ(run("/bin/cat", {"/proc/self/cmdline"}).output, std::string("/bin/cat\0/proc/self/cmdline\0", 28));
}

TEST_F(ExecuteProgramTest, InputOfSeveralMebibytesArrivesWhole)
{
    EXPECT_EQ(run("/usr/bin/wc", {"-c"}, std::string(5 * 1024 * 1024, 'x')).output, "5242880\n");
}

TEST_F(ExecuteProgramTest, AnyBytesArriveInBothDirections)
{
    std::string bytes;
    for (int i = 0; i < 60'000; ++i)
    {
        bytes.push_back(static_cast<char>(i % 256));
    }

    EXPECT_EQ(run("/bin/cat", {}, bytes).output, bytes);
}

TEST_F(ExecuteProgramTest, InputBeginsWhereTheStreamStands)
{
    std::istringstream input("first rest\n");
    std::string first;
    input >> first;

    EXPECT_EQ(execute("/bin/cat", {}, {}, input, longEnough).output, " rest\n");
}

TEST_F(ExecuteProgramTest, InputIsTheStreamsBufferWhateverTheStateOfTheStream)
{
    std::istringstream input("text\n");
    input.setstate(std::ios_base::eofbit | std::ios_base::failbit);

    EXPECT_EQ(execute("/bin/cat", {}, {}, input, longEnough).output, "text\n");
    EXPECT_EQ(input.rdstate(), std::ios_base::eofbit | std::ios_base::failbit);
}

TEST_F(ExecuteProgramTest, EmptyInputEndsAtOnce)
{
    std::istream const withoutBuffer(nullptr);

    EXPECT_EQ(run("/usr/bin/wc", {"-c"}).output, "0\n");
    EXPECT_EQ(execute("/usr/bin/wc", {"-c"}, {}, withoutBuffer, longEnough).output, "0\n");
}

TEST_F(ExecuteProgramTest, ProgramThatEndsWithoutReadingItsInputDoesNotBlock)
{
    auto const result = run("/bin/true", {}, std::string(5 * 1024 * 1024, 'x'));

    EXPECT_THAT(result.exitCode, Optional(0));
}

TEST_F(ExecuteProgramTest, ProgramThatClosesItsInputDoesNotBlock)
{
    std::istringstream const input(std::string(5 * 1024 * 1024, 'x'));

    auto const result = execute("/bin/sh", {"-c", "exec <&-; echo text; exit 2"}, {}, input, longEnough);

    EXPECT_THAT(result.exitCode, Optional(2));
    EXPECT_EQ(result.output, "text\n");
}

TEST_F(ExecuteProgramTest, OutputThatFillsThePipeIsHandedBackWhole)
{
    auto const capacity = pipeCapacity();

    auto const result = run("/usr/bin/head", {"-c", std::to_string(capacity), "/dev/zero"});

    EXPECT_THAT(result.exitCode, Optional(0));
    EXPECT_EQ(result.output, std::string(capacity, '\0'));
}

TEST_F(ExecuteProgramTest, ProgramThatTakesTooLongIsKilled)
{
    auto const start = std::chrono::steady_clock::now();

    auto const result = shell("echo $$; exec sleep 60", {}, 2s);

    EXPECT_GE(std::chrono::steady_clock::now() - start, 2010ms);
    EXPECT_THAT(result.termSignal, Optional(SIGKILL));
    EXPECT_FALSE(result.exitCode.has_value());
    std::string const id = result.output.substr(0, result.output.find('\n'));
    EXPECT_THAT(log.lines(),
                testing::ElementsAre(isLine(Severity::Trace, "", "execute()"),
                                     isLine(Severity::Trace, "", "getAppOutput()"),
                                     isLine(Severity::Debug, "", "Timeout is set to 2.000000s"),
                                     isLine(Severity::Debug, "", "Send kill signal to child process " + id),
                                     isLine(Severity::Info, "", "kill(" + id + ", SIGKILL) succeeded with 0"),
                                     isLine(Severity::Debug, "", "Child finished after kill")));
}

TEST_F(ExecuteProgramTest, NoTimeLeavesOneSleepBeforeTheKill)
{
    auto const start = std::chrono::steady_clock::now();

    auto const result = run("/bin/sleep", {"60"}, {}, 0ms);

    EXPECT_GE(std::chrono::steady_clock::now() - start, 10ms);
    EXPECT_THAT(result.termSignal, Optional(SIGKILL));
}

TEST_F(ExecuteProgramTest, EnvironmentIsInheritedAddedToAndOverwritten)
{
    ASSERT_EQ(setenv("HALDEN_KEPT", "kept", 1), 0);
    ASSERT_EQ(setenv("HALDEN_CHANGED", "before", 1), 0);

    auto const result =
        shell("echo \"$HALDEN_KEPT|$HALDEN_CHANGED|$HALDEN_ADDED|$HALDEN_TWICE\"", {{"HALDEN_CHANGED", "after"},
                                                                                    {"HALDEN_ADDED", "a = b\nc"},
                                                                                    {"HALDEN_TWICE", "first"},
                                                                                    {"HALDEN_TWICE", "second"}});

    EXPECT_EQ(result.output, "kept|after|a = b\nc|second\n");
    EXPECT_STREQ(std::getenv("HALDEN_CHANGED"), "before");
    EXPECT_EQ(std::getenv("HALDEN_ADDED"), nullptr);
}

TEST_F(ExecuteProgramTest, WhatIsNoProgramEndsWith255AndNoOutput)
{
    for (std::string const path : {"/no/such/program", "/", "/etc/passwd", ""})
    {
        auto const result = run(path);

        EXPECT_THAT(result.exitCode, Optional(-1)) << path;
        EXPECT_FALSE(result.termSignal.has_value()) << path;
        EXPECT_EQ(result.output, "") << path;
    }
}

TEST_F(ExecuteProgramTest, NameWithoutASlashIsNotLookedUpInPath)
{
    EXPECT_THAT(run("true").exitCode, Optional(-1));
    EXPECT_THAT(shell("true").exitCode, Optional(0)); // which a shell does
}

TEST_F(ExecuteProgramTest, NameWithoutASlashIsOneInTheCurrentDirectory)
{
    auto const child = runInChild(
        []
        {
            std::filesystem::current_path("/bin");
            return run("true").exitCode == 0 ? 0 : 1;
        });

    EXPECT_EQ(child.exitCode, 0);
}

TEST_F(ExecuteProgramTest, StandardErrorIsTheCallers)
{
    auto const child = runInChild([] { return shell("echo text >&2").output.empty() ? 0 : 1; });

    EXPECT_EQ(child.exitCode, 0);
    EXPECT_EQ(child.output, "text\n");
}

TEST_F(ExecuteProgramTest, FailedStartIsLoggedByTheChild)
{
    auto const child = runInChild(
        []
        {
            Log::LoggerProxy::instance().setSink(nullptr);
            Log::LoggerProxy::instance().setThreshold(Severity::Error);
            return run("/no/such/program").exitCode == -1 ? 0 : 1;
        });

    EXPECT_EQ(child.exitCode, 0);
    EXPECT_THAT(child.output, testing::EndsWith(" execve() failed with No such file or directory\n"));
    EXPECT_THAT(child.output, HasSubstr(" error "));
}

TEST_F(ExecuteProgramTest, ProcessLeftBehindWithTheInputIsGivenAllOfIt)
{
    std::istringstream const input(std::string(1024 * 1024, 'x'));

    auto const result = execute("/bin/sh", {"-c", "exec 3<&0; wc -c <&3 &"}, {}, input, longEnough);

    EXPECT_THAT(result.exitCode, Optional(0));
    EXPECT_EQ(result.output, "1048576\n");
}

TEST_F(ExecuteProgramTest, LongestTimeoutsAreNone)
{
    EXPECT_THAT(run("/bin/true", {}, {}, std::chrono::milliseconds::max()).exitCode, Optional(0));
    EXPECT_THAT(run("/bin/sleep", {"60"}, {}, std::chrono::milliseconds::min()).termSignal, Optional(SIGKILL));
}

// kept: the output ends when nobody can write to it any more
TEST_F(ExecuteProgramTest, ProcessLeftBehindWithTheOutputIsWaitedFor)
{
    auto const result = shell("(sleep 0.3; echo late) & echo early");

    EXPECT_THAT(result.exitCode, Optional(0));
    EXPECT_EQ(result.output, "early\nlate\n");
}

TEST_F(ExecuteProgramTest, ProgramInheritsNoPipeOfAnotherCall)
{
    auto const listing = [] { return run("/bin/ls", {"/proc/self/fd"}).output; };
    std::string const alone = listing();
    std::string during;
    InputThatCalls buffer([&] { during = listing(); });
    std::istream const input(&buffer);

    execute("/bin/true", {}, {}, input, longEnough);

    EXPECT_NE(alone, "");
    EXPECT_EQ(during, alone);
}

TEST_F(ExecuteProgramTest, InputThatComesInPiecesArrivesWhole)
{
    std::string text;
    while (text.size() < 20000)
    {
        text += std::to_string(text.size()) + ' ';
    }
    for (int const size : {1, 1000, 8191, 8192, 8193})
    {
        InputInPieces buffer(text, size);
        std::istream const input(&buffer);

        EXPECT_EQ(execute("/bin/cat", {}, {}, input, longEnough).output, text) << size;
    }
}

// kept: the program is given what could be read
TEST_F(ExecuteProgramTest, InputThatFailsEndsThere)
{
    for (std::string const& text : {std::string(), std::string("a"), std::string(9000, 'b')})
    {
        InputThatCalls buffer([] { throw std::runtime_error("I/O error"); }, text);
        std::istream const input(&buffer);

        EXPECT_EQ(execute("/bin/cat", {}, {}, input, longEnough).output, text);
    }
}

TEST_F(ExecuteProgramTest, ProgramHasTheSignalMaskOfTheCaller)
{
    auto const blocked = [] { return run("/bin/grep", {"SigBlk", "/proc/self/status"}).output; };
    std::string const before = blocked();
    sigset_t usr1;
    sigemptyset(&usr1);
    sigaddset(&usr1, SIGUSR1);

    pthread_sigmask(SIG_BLOCK, &usr1, nullptr);
    std::string const after = blocked();
    pthread_sigmask(SIG_UNBLOCK, &usr1, nullptr);

    EXPECT_EQ(before, "SigBlk:\t0000000000000000\n");
    EXPECT_EQ(after, "SigBlk:\t0000000000000200\n");
}

TEST_F(ExecuteProgramTest, IgnoredEndOfChildrenThrows)
{
    auto const child = runInChild(
        []
        {
            Log::LoggerProxy::instance().setSink(nullptr);
            signal(SIGCHLD, SIG_IGN);
            try
            {
                run("/bin/true");
            }
            catch (std::runtime_error const& error)
            {
                return std::string(error.what()) == "No child processes" ? 0 : 2;
            }
            return 1;
        });

    EXPECT_EQ(child.exitCode, 0) << child.output;
}

TEST_F(ExecuteProgramTest, RunsInARowLeaveNothingBehind)
{
    constexpr std::size_t runs = 300;
    run("/bin/cat", {}, "text");
    log.clear();
    auto const before = holdings();

    for (std::size_t i = 0; i < runs; ++i)
    {
        ASSERT_EQ(run("/bin/cat", {}, "text").output, "text");
        log.clear();
    }

    EXPECT_FALSE(hasChildren());
    EXPECT_TRUE(isBackTo(before));
}

}

}
