#pragma once

#include <utils/Execute.h>

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>

namespace Halden::Tavro::Utils
{

/// The pause between two looks at a child, and the unit of its time-out.
constexpr std::chrono::milliseconds pollPeriod{10};

/// One look at a child, which does not wait.
struct ChildLook
{
    enum class Answer
    {
        Running,
        Interrupted,
        Ended
    };

    Answer answer;
    int status; // of waitpid(2), when it has ended
};

/// Logs the end of the child, once it has come.
///
/// @throws std::runtime_error when the system does not tell
ChildLook lookAt(pid_t child);

/// Kills and reaps a child whose time is up.
///
/// @return the status of waitpid(2); nothing when a signal handler has interrupted the wait in the exact build
/// @throws std::runtime_error when it may not be killed, or the system does not tell its status
std::optional<int> killAndReap(pid_t child);

/// @param status of waitpid(2); nothing when it is not known
ExecutionResult makeResult(std::optional<int> status, std::string output);

}
