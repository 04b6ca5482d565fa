#include "support/ChildProcess.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <stdexcept>

namespace Halden::Tavro::TestSupport
{

namespace
{

[[noreturn]] void runPiece(std::function<int()> const& piece, int output)
{
    rlimit const none{0, 0};
    setrlimit(RLIMIT_CORE, &none);
    for (int const signalNumber : {SIGABRT, SIGHUP, SIGINT, SIGPIPE, SIGSEGV, SIGTERM})
    {
        signal(signalNumber, SIG_DFL);
    }
    sigset_t nothing;
    sigemptyset(&nothing);
    sigprocmask(SIG_SETMASK, &nothing, nullptr);
    dup2(output, STDOUT_FILENO);
    dup2(output, STDERR_FILENO);
    close(output);
    _exit(piece());
}

/// Appends all output until the other end closes. @return false when the deadline came first
bool readUntil(int descriptor, std::string& output, std::chrono::steady_clock::time_point deadline)
{
    std::array<char, 4096> buffer{};
    while (true)
    {
        auto const left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0)
        {
            return false;
        }
        pollfd polled{descriptor, POLLIN, 0};
        if (poll(&polled, 1, static_cast<int>(left.count())) <= 0)
        {
            continue;
        }
        ssize_t const count = read(descriptor, buffer.data(), buffer.size());
        if (count == 0)
        {
            return true;
        }
        if (count > 0)
        {
            output.append(buffer.data(), static_cast<std::size_t>(count));
        }
    }
}

}

Child startChild(std::function<int()> const& piece)
{
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0)
    {
        throw std::runtime_error("no pipe for the child's output");
    }
    pid_t const child = fork();
    if (child < 0)
    {
        throw std::runtime_error("no child process");
    }
    if (child == 0)
    {
        close(ends[0]);
        runPiece(piece, ends[1]);
    }
    close(ends[1]);
    return {child, ends[0]};
}

ChildResult runInChild(std::function<int()> const& piece, std::chrono::milliseconds limit)
{
    Child const child = startChild(piece);

    ChildResult result;
    result.timedOut = !readUntil(child.output, result.output, std::chrono::steady_clock::now() + limit);
    close(child.output);
    if (result.timedOut)
    {
        kill(child.id, SIGKILL);
    }
    int status = 0;
    while (waitpid(child.id, &status, 0) < 0 && errno == EINTR)
    {
    }
    if (WIFEXITED(status))
    {
        result.exitCode = WEXITSTATUS(status);
    }
    if (WIFSIGNALED(status))
    {
        result.signal = WTERMSIG(status);
    }
    return result;
}

std::string expectInChild(std::function<void()> const& piece)
{
    auto const result = runInChild(
        [&piece]
        {
            piece();
            return testing::Test::HasFailure() ? 1 : 0;
        });
    EXPECT_EQ(result.exitCode, 0) << result.output;
    return result.output;
}

int becomeProgram(std::string path, std::vector<std::string> arguments)
{
    std::vector<char*> pointers{path.data()};
    for (auto& argument : arguments)
    {
        pointers.push_back(argument.data());
    }
    pointers.push_back(nullptr);
    execv(path.c_str(), pointers.data());
    return 127;
}

}
