#pragma once

#include <utils/Execute.h>

namespace Halden::Tavro::Utils
{

/// What getAppOutput() does in the hardened build once it has logged its start.
///
/// Input, output and the wait for the child's end go together until all three are done, and at the longest until the
/// time is up. Whatever fails, the child is killed and reaped before the exception leaves.
ExecutionResult converse(Pipe& stdoutPipe, Pipe& stdinPipe, pid_t id, std::istream const& input,
                         std::chrono::milliseconds timeout);

}
