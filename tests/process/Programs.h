#pragma once

#include <utils/Execute.h>

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <sstream>
#include <string>
#include <vector>

namespace Halden::Tavro::TestSupport
{

constexpr std::chrono::seconds longEnough{60};

inline Utils::ExecutionResult run(std::string const& path, std::vector<std::string> const& arguments = {},
                                  std::string const& input = {}, std::chrono::milliseconds timeout = longEnough)
{
    std::istringstream const stream(input);
    return Utils::execute(path, arguments, {}, stream, timeout);
}

inline Utils::ExecutionResult shell(std::string const& script, Utils::Environment const& environment = {},
                                    std::chrono::milliseconds timeout = longEnough)
{
    std::istringstream const input;
    return Utils::execute("/bin/sh", {"-c", script}, environment, input, timeout);
}

inline bool hasChildren()
{
    return waitpid(-1, nullptr, WNOHANG) != -1 || errno != ECHILD;
}

/// Whether a child of posix_spawn(3) runs in a copy of this process, as under an emulator: nobody hears then of a
/// program that cannot be started, and the library forks instead.
inline bool runsChildrenInCopies()
{
    std::array<char*, 1> const noArguments{};
    pid_t child = 0;
    bool const isSilent = posix_spawn(&child, "", nullptr, nullptr, noArguments.data(), environ) == 0;
    return isSilent && waitpid(child, nullptr, 0) == child;
}

inline std::size_t pipeCapacity()
{
    std::array<int, 2> ends{};
    int const capacity = pipe(ends.data()) == 0 ? fcntl(ends[0], F_GETPIPE_SZ) : 0;
    close(ends[0]);
    close(ends[1]);
    return static_cast<std::size_t>(capacity);
}

}
