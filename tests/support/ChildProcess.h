#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace Halden::Tavro::TestSupport
{

/// How a piece of code ended that ran in a process of its own.
struct ChildResult
{
    std::optional<int> exitCode; ///< what the piece returned
    std::optional<int> signal;   ///< what ended it instead
    bool timedOut{false};        ///< killed by the watchdog, so it had blocked
    std::string output;          ///< its standard output and standard error
};

/// Runs a piece that ends or blocks its process in a child, and kills it when it takes longer than the limit.
///
/// The piece starts with one thread, the default actions of signals, none of them blocked, and no core dumps. To be
/// called while the test itself runs no other threads.
ChildResult runInChild(std::function<int()> const& piece, std::chrono::milliseconds limit = std::chrono::seconds(20));

/// Runs a piece with expectations of its own in a child: those are part of the test. @return what the child has printed
std::string expectInChild(std::function<void()> const& piece);

/// A child that runs, for those who do more with it than wait for its end.
struct Child
{
    pid_t id;   ///< to be reaped by the caller
    int output; ///< the read end of a pipe behind its standard output and standard error, to be closed by the caller
};

/// Starts what runInChild() runs.
Child startChild(std::function<int()> const& piece);

/// Turns this process, a child, into the program. @return 127 when it cannot be started
int becomeProgram(std::string path, std::vector<std::string> arguments);

}
