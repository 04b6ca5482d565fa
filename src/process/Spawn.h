#pragma once

#include <utils/Execute.h>

#include <sys/types.h>

#include <optional>

namespace Halden::Tavro::Utils
{

/// Starts a program as a fork(2) and executeApp() do, but without a copy of this process, whose cost grows with its
/// memory. Nothing of this process runs in the child, so nothing can wait there for a lock that another thread holds.
///
/// @return nothing when there is no such child: when the program cannot be started, or when the child would have lines
/// to
///         log, which a fork(2) and executeApp() do
std::optional<pid_t> spawn(Pipe& stdinPipe, Pipe& stdoutPipe, char const* path, char* const* arguments,
                           Environment const& environment);

}
