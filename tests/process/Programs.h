#pragma once

#include <utils/Execute.h>

#include <fcntl.h>
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

inline std::size_t pipeCapacity()
{
    std::array<int, 2> ends{};
    int const capacity = pipe(ends.data()) == 0 ? fcntl(ends[0], F_GETPIPE_SZ) : 0;
    close(ends[0]);
    close(ends[1]);
    return static_cast<std::size_t>(capacity);
}

}
