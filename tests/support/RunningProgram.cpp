#include "support/RunningProgram.h"

#include "support/WaitFor.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <stdexcept>

namespace Halden::Tavro::TestSupport
{

using namespace std::chrono_literals;
using std::chrono::steady_clock;

namespace
{

/// @return false when the output ends, or nothing comes before the deadline
bool readOne(int descriptor, char& letter, steady_clock::time_point deadline)
{
    while (steady_clock::now() < deadline)
    {
        pollfd polled{descriptor, POLLIN, 0};
        if (poll(&polled, 1, 100) > 0)
        {
            return read(descriptor, &letter, 1) == 1;
        }
    }
    return false;
}

}

RunningProgram::RunningProgram(std::string path, std::vector<std::string> arguments)
{
    std::vector<char*> pointers{path.data()};
    for (auto& argument : arguments)
    {
        pointers.push_back(argument.data());
    }
    pointers.push_back(nullptr);
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0)
    {
        throw std::runtime_error("no pipe");
    }
    child = fork();
    if (child == 0)
    {
        dup2(ends[1], STDOUT_FILENO);
        dup2(ends[1], STDERR_FILENO);
        execv(path.c_str(), pointers.data());
        _exit(127);
    }
    close(ends[1]);
    readEnd = ends[0];
}

RunningProgram::~RunningProgram()
{
    close(readEnd);
    if (child > 0)
    {
        kill(child, SIGKILL);
        waitpid(child, nullptr, 0);
    }
}

std::string RunningProgram::line()
{
    auto const deadline = steady_clock::now() + 10s;
    std::size_t const begin = output.size();
    for (char letter = 0; readOne(readEnd, letter, deadline);)
    {
        output += letter;
        if (letter == '\n')
        {
            return output.substr(begin, output.size() - begin - 1);
        }
    }
    return output.substr(begin);
}

bool RunningProgram::showsLineWith(std::string const& text)
{
    auto const deadline = steady_clock::now() + 20s;
    while (steady_clock::now() < deadline)
    {
        if (line().find(text) != std::string::npos)
        {
            return true;
        }
    }
    return false;
}

std::string const& RunningProgram::wholeOutput()
{
    auto const deadline = steady_clock::now() + 10s;
    for (char letter = 0; readOne(readEnd, letter, deadline);)
    {
        output += letter;
    }
    return output;
}

void RunningProgram::send(int signalNumber) const
{
    kill(child, signalNumber);
}

int RunningProgram::status()
{
    int result = 0;
    if (!waitFor([&] { return waitpid(child, &result, WNOHANG) == child; }))
    {
        return -1;
    }
    child = -1;
    return WIFEXITED(result) ? WEXITSTATUS(result) : -1;
}

}
