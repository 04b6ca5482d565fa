#pragma once

#include <pthread.h>

#include <cerrno>
#include <csignal>
#include <ctime>

namespace Halden::Tavro::Utils
{

/// Keeps SIGPIPE from the calling thread, as a child may end without reading.
class SigpipeBlock
{
public:
    SigpipeBlock()
    {
        sigemptyset(&sigpipe);
        sigaddset(&sigpipe, SIGPIPE);
        pthread_sigmask(SIG_BLOCK, &sigpipe, &maskBefore);
        sigset_t pending;
        sigpending(&pending);
        wasPending = sigismember(&pending, SIGPIPE) == 1;
    }

    SigpipeBlock(SigpipeBlock const&) = delete;
    SigpipeBlock& operator=(SigpipeBlock const&) = delete;

    ~SigpipeBlock()
    {
        if (!wasPending)
        {
            consume();
        }
        pthread_sigmask(SIG_SETMASK, &maskBefore, nullptr);
    }

private:
    void consume() const
    {
        timespec const noTime{};
        while (sigtimedwait(&sigpipe, nullptr, &noTime) == -1 && errno == EINTR)
        {
        }
    }

    sigset_t sigpipe{};
    sigset_t maskBefore{};
    bool wasPending{false};
};

}
