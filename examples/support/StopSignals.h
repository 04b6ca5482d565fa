#pragma once

#include <signal.h> // NOLINT(modernize-deprecated-headers): sigtimedwait is POSIX

#include <algorithm>
#include <chrono>

/// The signals that end a program: Ctrl-C and what kill(1) sends. Blocked before any thread starts, so that only the
/// waits see them.
class StopSignals
{
public:
    StopSignals()
    {
        sigemptyset(&signals);
        sigaddset(&signals, SIGINT);
        sigaddset(&signals, SIGTERM);
        pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    }

    void wait() const
    {
        int signalNumber = 0;
        sigwait(&signals, &signalNumber);
    }

    /// @return true when one has come before the deadline
    bool waitUntil(std::chrono::steady_clock::time_point deadline) const
    {
        using std::chrono::nanoseconds;
        auto const left = std::max<nanoseconds>(deadline - std::chrono::steady_clock::now(), nanoseconds::zero());
        auto const seconds = std::chrono::duration_cast<std::chrono::seconds>(left);
        timespec timeout{};
        timeout.tv_sec = static_cast<time_t>(seconds.count());
        timeout.tv_nsec = static_cast<long>((left - seconds).count());
        return sigtimedwait(&signals, nullptr, &timeout) > 0;
    }

private:
    sigset_t signals{};
};
