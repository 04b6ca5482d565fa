// What becomes of SIGPIPE where a child ends without reading its input.

#include "process/GetAppOutputFixture.h"
#include "process/InputThatCalls.h"
#include "support/CallDouble.h"

#include <signal.h>

#include <cerrno>
#include <chrono>
#include <istream>
#include <sstream>
#include <string>

namespace Halden::Tavro::Utils
{

namespace
{

TestSupport::CallDouble<int(sigset_t const*, siginfo_t*, timespec const*)> sigtimedwaitDouble{"sigtimedwait"};

}

extern "C" int sigtimedwait(sigset_t const* set, siginfo_t* information, timespec const* timeout)
{
    return sigtimedwaitDouble(set, information, timeout);
}

namespace
{

using namespace TestSupport;
using namespace std::chrono_literals;

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

class SigpipeBlockTest : public GetAppOutputFixture
{
};

TEST_F(SigpipeBlockTest, ReaderThatIsGoneDoesNotEndTheCaller)
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

TEST_F(SigpipeBlockTest, ShortInputForAReaderThatIsGoneDoesNotEndTheCaller)
{
    stdinPipe.close(Pipe::End::Read);

    EXPECT_EQ(call().exitCode, 0); // written only when the buffer is flushed
}

TEST_F(SigpipeBlockTest, SigpipeBlockedByTheCallerStaysBlockedAndNoneIsLeft)
{
    BlockedSigpipe const blocked;
    stdinPipe.close(Pipe::End::Read);

    call();

    EXPECT_TRUE(BlockedSigpipe::isBlocked());
    EXPECT_FALSE(blocked.take());
}

TEST_F(SigpipeBlockTest, SigpipeThatWasPendingBeforeStaysPending)
{
    BlockedSigpipe const blocked;
    pthread_kill(pthread_self(), SIGPIPE);
    stdinPipe.close(Pipe::End::Read);

    call();

    EXPECT_TRUE(blocked.take());
}

TEST_F(SigpipeBlockTest, InterruptedTakeOfTheSignalIsRepeated)
{
    BlockedSigpipe const blocked;
    stdinPipe.close(Pipe::End::Read);
    sigtimedwaitDouble.reset();
    sigtimedwaitDouble.failCall(1, -1, EINTR);

    call();

    EXPECT_FALSE(blocked.take());
}

TEST_F(SigpipeBlockTest, SigpipeIsNoLongerBlockedDuringTheWait)
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

TEST_F(SigpipeBlockTest, SigpipeIsBlockedWhileTheInputIsReadAndNoLongerAfterwards)
{
    bool duringRead = false;
    InputThatCalls buffer([&] { duringRead = BlockedSigpipe::isBlocked(); });
    std::istream const input(&buffer);

    getAppOutput(stdoutPipe, stdinPipe, child, input, 1h);

    EXPECT_TRUE(duringRead);
    EXPECT_FALSE(BlockedSigpipe::isBlocked());
}

}

}
