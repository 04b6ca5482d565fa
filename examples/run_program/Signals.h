#pragma once

#include <signal.h> // NOLINT(modernize-deprecated-headers): sigset_t is POSIX
#include <sys/types.h>

#include <chrono>

/// What comes in between while this process waits for a program: SIGTERM goes on to it; and then, when it has ended and
/// when the time is up, the standard input has an end, although somebody may wait for more of it at a terminal.
///
/// One for a process, made before the fork: it holds the signals back until both sides are ready for them.
class Signals
{
public:
    Signals();

    /// In the child.
    void leave() const;

    /// In the parent.
    void follow(pid_t program, std::chrono::milliseconds time) const;

private:
    sigset_t maskBefore{};
};
