#pragma once

#include <utils/Execute.h>

#include <sys/types.h>

#include <optional>

namespace Halden::Tavro::Utils
{

/// Starts a program as fork(2) and executeApp() do, but without a copy of this process, whose cost grows with its
/// memory. Nothing of this process runs in the child, so nothing there can wait for a lock that another thread holds.
///
/// @return nothing where fork(2) and executeApp() are needed: the program cannot be started, or the child has lines to
///         log
std::optional<pid_t> spawn(Pipe& stdinPipe, Pipe& stdoutPipe, char const* path, char* const* arguments,
                           Environment const& environment);

}
