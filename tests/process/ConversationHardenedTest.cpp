// How execute() talks with a program and waits for its end in the hardened build.

#include "process/ExecuteFixture.h"
#include "process/InputThatCalls.h"
#include "process/PipeNumbers.h"
#include "process/Programs.h"
#include "process/WaitingChild.h"
#include "support/NewDouble.h"
#include "support/WaitFor.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstring>
#include <ios>
#include <istream>
#include <new>
#include <sstream>
#include <stdexcept>
#include <streambuf>
#include <string>
#include <thread>

namespace Halden::Tavro::Utils
{

namespace
{

using namespace TestSupport;
using namespace std::chrono_literals;
using Log::Severity;
using testing::AllOf;
using testing::Each;
using testing::FieldsAre;
using testing::Ge;
using testing::IsEmpty;
using testing::Not;
using testing::Optional;

constexpr std::size_t mebibyte = 1024 * 1024;
constexpr auto soon = 300ms;
constexpr auto oncePrinted = 3s; // enough for a program to start and print a line, also on a busy machine

class ConversationHardenedTest : public ExecuteFixture
{
protected:
    ~ConversationHardenedTest() override { EXPECT_FALSE(hasChildren()); }
};

/// A process that a program has left behind, by the id that is the program's output.
void endStranger(std::string const& id)
{
    EXPECT_EQ(kill(std::stoi(id), SIGKILL), 0) << id;
}

TEST_F(ConversationHardenedTest, SixteenMebibytesGoThroughCatAndBack)
{
    std::string text;
    text.reserve(16 * mebibyte);
    for (unsigned i = 0; text.size() < 16 * mebibyte; ++i)
    {
        text.push_back(static_cast<char>(i * 2'654'435'761U >> 24));
    }

    auto const result = run("/bin/cat", {}, text);

    EXPECT_THAT(result.exitCode, Optional(0));
    EXPECT_TRUE(result.output == text);
}

TEST_F(ConversationHardenedTest, OutputOfAnyLengthIsWhole)
{
    auto const capacity = pipeCapacity();
    for (auto const size : {capacity + 1, 5 * mebibyte})
    {
        auto const result = run("/usr/bin/head", {"-c", std::to_string(size), "/dev/zero"});

        EXPECT_THAT(result.exitCode, Optional(0));
        EXPECT_TRUE(result.output == std::string(size, '\0')) << result.output.size();
    }
}

TEST_F(ConversationHardenedTest, InputThatThePipeTakesInPiecesArrivesWhole)
{
    pipe2Double.replace(
        [](int* ends, int flags)
        {
            int const result = pipe2Double.passOn(ends, flags);
            EXPECT_GT(fcntlDouble.passOn(ends[1], F_SETPIPE_SZ, 1), 0); // as little as the system allows
            return result;
        });
    std::string text;
    for (int i = 0; text.size() < 100'000; ++i)
    {
        text += std::to_string(i) + ' ';
    }

    EXPECT_TRUE(run("/bin/cat", {}, text).output == text);
}

TEST_F(ConversationHardenedTest, InterruptedReadIsRepeated)
{
    readDouble.failCall(1, -1, EINTR);

    EXPECT_EQ(shell("echo text").output, "text\n");
}

TEST_F(ConversationHardenedTest, EndThatCannotBeSetNotToWaitCountsAsNotOpen)
{
    for (int const forbidden : {F_GETFL, F_SETFL})
    {
        fcntlDouble.replace(
            [forbidden](int descriptor, int command, long argument)
            {
                errno = EPERM;
                return command == forbidden ? -1 : fcntlDouble.passOn(descriptor, command, argument);
            });
        log.expect(free(Severity::Error, "Failed to open pipe to stdin for write"));

        EXPECT_THAT([] { shell("sleep 60", {}, soon); }, testing::ThrowsMessage<std::runtime_error>(
                                                             testing::StrEq("Failed to open pipe to stdin for write")));
    }
}

TEST_F(ConversationHardenedTest, NothingIsClosedThatIsNotOpen)
{
    run("/bin/cat", {}, "text");

    EXPECT_THAT(closeDouble.calls(), AllOf(Not(IsEmpty()), Each(FieldsAre(Ge(0)))));
}

TEST_F(ConversationHardenedTest, ProgramThatNeitherReadsNorEndsIsKilledInTime)
{
    auto const start = std::chrono::steady_clock::now();

    auto const result = run("/bin/sleep", {"60"}, std::string(mebibyte, 'x'), soon);

    EXPECT_THAT(result.termSignal, Optional(SIGKILL));
    EXPECT_GE(std::chrono::steady_clock::now() - start, soon);
    EXPECT_LT(std::chrono::steady_clock::now() - start, 60s);
}

TEST_F(ConversationHardenedTest, ProgramThatWritesButDoesNotReadIsKilledInTime)
{
    std::istringstream const input(std::string(mebibyte, 'x'));

    auto const result = execute("/bin/sh", {"-c", "echo text; exec sleep 60"}, {}, input, oncePrinted);

    EXPECT_THAT(result.termSignal, Optional(SIGKILL));
    EXPECT_EQ(result.output, "text\n");
}

TEST_F(ConversationHardenedTest, ProcessLeftBehindWithTheOutputIsWaitedForUntilTheTimeIsUp)
{
    auto const start = std::chrono::steady_clock::now();

    auto const result = shell("sleep 60 & echo $!", {}, oncePrinted);

    EXPECT_LT(std::chrono::steady_clock::now() - start, 60s);
    EXPECT_THAT(result.exitCode, Optional(0));
    EXPECT_EQ(killDouble.count(), 0U);
    endStranger(result.output);
}

TEST_F(ConversationHardenedTest, ProcessThatAKilledProgramLeavesBehindIsNotWaitedFor)
{
    auto const start = std::chrono::steady_clock::now();

    auto const result = shell("sleep 60 & echo $!; wait", {}, oncePrinted);

    EXPECT_LT(std::chrono::steady_clock::now() - start, 60s);
    EXPECT_THAT(result.termSignal, Optional(SIGKILL));
    endStranger(result.output);
}

TEST_F(ConversationHardenedTest, ProcessLeftBehindThatWritesForEverDoesNotHoldTheCall)
{
    auto const start = std::chrono::steady_clock::now();

    auto const result = shell("sh -c 'echo $$; exec yes' & wait", {}, oncePrinted);

    EXPECT_LT(std::chrono::steady_clock::now() - start, 60s);
    EXPECT_THAT(result.termSignal, Optional(SIGKILL));
    // The process left behind ends by itself now, as nobody reads what it writes.
}

TEST_F(ConversationHardenedTest, EndIsToldWithoutLookingForIt)
{
    int const descriptor = pidfdOpenDouble.passOn(getpid(), 0);
    if (descriptor == -1)
    {
        GTEST_SKIP() << "the system has no descriptors of processes";
    }
    closeDouble.passOn(descriptor);

    EXPECT_THAT(shell("sleep 0.3").exitCode, Optional(0));

    EXPECT_EQ(waitpidDouble.count(), 1U);
    EXPECT_EQ(nanosleepDouble.count(), 0U);
}

TEST_F(ConversationHardenedTest, EndIsLookedForWhereNothingTellsIt)
{
    for (int const error : {ENOSYS, EMFILE, EPERM})
    {
        pidfdOpenDouble.reset();
        pidfdOpenDouble.failCall(1, -1, error);

        auto const result = shell("exec >&-; sleep 0.1; exit 3");

        EXPECT_THAT(result.exitCode, Optional(3));
    }

    pidfdOpenDouble.reset();
    pidfdOpenDouble.failCall(1, -1, ENOSYS);
    EXPECT_THAT(run("/bin/sleep", {"60"}, {}, soon).termSignal, Optional(SIGKILL));
}

TEST_F(ConversationHardenedTest, EndThatIsToldTooEarlyIsLookedForAndNotBusily)
{
    int told = -1;
    pidfdOpenDouble.replace(
        [&told](pid_t, unsigned)
        {
            told = open("/dev/null", O_RDONLY | O_CLOEXEC); // always ready
            return told;
        });

    EXPECT_THAT(shell("sleep 0.5").exitCode, Optional(0));

    EXPECT_EQ(fcntlDouble.passOn(told, F_GETFD, 0), -1);
    EXPECT_LE(waitpidDouble.count(), 500U / 2);
}

/// Signals to this process every 3 ms, whose handler interrupts what waits.
class Interruptions
{
public:
    Interruptions()
    {
        struct sigaction action
        {
        };
        action.sa_handler = [](int) {}; // without SA_RESTART
        sigaction(SIGALRM, &action, &before);
        itimerval const often{{0, 3'000}, {0, 3'000}};
        setitimer(ITIMER_REAL, &often, nullptr);
    }

    ~Interruptions()
    {
        itimerval const never{};
        setitimer(ITIMER_REAL, &never, nullptr);
        sigaction(SIGALRM, &before, nullptr);
    }

    Interruptions(Interruptions const&) = delete;
    Interruptions& operator=(Interruptions const&) = delete;

private:
    struct sigaction before
    {
    };
};

TEST_F(ConversationHardenedTest, SignalHandlersDisturbNeitherTheWaitNorTheTalk)
{
    Interruptions const interruptions;

    auto const ended = shell("sleep 0.3; echo text; exit 3");
    EXPECT_THAT(ended.exitCode, Optional(3));
    EXPECT_EQ(ended.output, "text\n");

    std::string const text(mebibyte, 'x');
    EXPECT_TRUE(run("/bin/cat", {}, text).output == text);

    EXPECT_THAT(run("/bin/sleep", {"60"}, {}, soon).termSignal, Optional(SIGKILL));
}

TEST_F(ConversationHardenedTest, InterruptedReapingIsRepeated)
{
    std::atomic<int> interruptions{0};
    waitpidDouble.replace(
        [&interruptions](pid_t process, int* status, int options)
        {
            if (options == 0 && ++interruptions < 4)
            {
                errno = EINTR;
                return -1;
            }
            return waitpidDouble.passOn(process, status, options);
        });

    EXPECT_THAT(run("/bin/sleep", {"60"}, {}, 0ms).termSignal, Optional(SIGKILL));

    EXPECT_EQ(interruptions, 4);
}

TEST_F(ConversationHardenedTest, OutputThatCannotBeReadEndsTheChild)
{
    WaitingChild waiting;
    int const directory = open("/", O_RDONLY | O_CLOEXEC);
    dup2Double.passOn(directory, numbersOf(waiting.stdoutPipe).read);
    closeDouble.passOn(directory);
    std::istringstream const input;

    EXPECT_THROW(waiting.getOutput(input), std::ios_base::failure);

    EXPECT_FALSE(hasChildren());
}

TEST_F(ConversationHardenedTest, InterruptedLookAtAChildThatIsLeftIsRepeated)
{
    WaitingChild waiting;
    name("stdout", numbersOf(waiting.stdoutPipe).read, numbersOf(waiting.stdoutPipe).write);
    failToOpen("stdout.read");
    waitpidDouble.failCall(1, -1, EINTR);
    log.expect(free(Severity::Error, "Failed to open pipe to stdout for read"));
    std::istringstream const input;

    EXPECT_THROW(waiting.getOutput(input), std::runtime_error);

    EXPECT_FALSE(hasChildren());
}

TEST_F(ConversationHardenedTest, EndlessOutputIsLimited)
{
    WaitingChild waiting;
    int const writeEnd = numbersOf(waiting.stdoutPipe).write;
    ASSERT_EQ(write(writeEnd, "x", 1), 1);
    std::size_t sum = 0;
    readDouble.replace(
        [&sum](int, void* buffer, std::size_t size)
        {
            std::memset(buffer, 'x', size); // and leaves the pipe as it is
            sum += size;
            errno = EAGAIN;
            return sum > 80 * mebibyte ? -1 : static_cast<ssize_t>(size);
        });
    std::istringstream const input;

    auto const result = waiting.getOutput(input, 3s);

    EXPECT_THAT(result.termSignal, Optional(SIGKILL));
    EXPECT_LE(result.output.size(), 65 * mebibyte);
}

TEST_F(ConversationHardenedTest, OutputThatDoesNotFitInMemoryEndsTheChild)
{
    underTest = false; // the doubles need memory themselves
    InputThatCalls buffer([] { failNextAllocation(AllocationFailure::BadAlloc); }); // that for the output
    std::istream const input(&buffer);

    EXPECT_THROW(execute("/usr/bin/yes", {}, {}, input, 1h), std::bad_alloc);

    EXPECT_TRUE(allocationHasFailed());
    EXPECT_FALSE(hasChildren());
}

TEST_F(ConversationHardenedTest, ForbiddenKillLeavesNoEndedChildBehind)
{
    killDouble.replace(
        [](pid_t process, int signalNumber)
        {
            killDouble.passOn(process, signalNumber);
            siginfo_t end{};
            EXPECT_EQ(waitid(P_PID, static_cast<id_t>(process), &end, WEXITED | WNOWAIT), 0);
            errno = EPERM;
            return -1;
        });
    log.expect(testing::Field(&LogLine::severity, Severity::Error));

    EXPECT_THROW(run("/bin/sleep", {"60"}, {}, 0ms), std::runtime_error);

    EXPECT_FALSE(hasChildren());
}

TEST_F(ConversationHardenedTest, ForbiddenKillDoesNotWaitForTheChild)
{
    killDouble.replace(
        [](pid_t, int)
        {
            errno = EPERM;
            return -1;
        });
    log.expect(testing::Field(&LogLine::severity, Severity::Error));

    EXPECT_THROW(run("/bin/sleep", {"60"}, {}, 0ms), std::runtime_error);

    pid_t const child = std::get<0>(killDouble.calls().at(0));
    EXPECT_EQ(killDouble.passOn(child, SIGKILL), 0);
    EXPECT_EQ(waitpidDouble.passOn(child, nullptr, 0), child);
}

// As does one that is cancelled: but of its frames the address sanitizer would keep marks, as it is not told.
TEST_F(ConversationHardenedTest, ThreadThatExitsLeavesNoChildBehind)
{
    InputThatCalls buffer([] { pthread_exit(nullptr); });
    std::istream const input(&buffer);

    std::thread([&input] { execute("/bin/sleep", {"60"}, {}, input, 1h); }).join();

    EXPECT_FALSE(hasChildren());
}

}

}
