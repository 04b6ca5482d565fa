#include "support/RunningProgram.h"

#include "support/WaitFor.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>

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

RunningProgram::RunningProgram(std::string const& path, std::vector<std::string> const& arguments)
    : child(startChild(
          [&]
          {
              close(STDIN_FILENO);
              return open("/dev/null", O_RDONLY) == STDIN_FILENO ? becomeProgram(path, arguments) : 126;
          }))
{
}

RunningProgram::~RunningProgram()
{
    close(child.output);
    if (!ended)
    {
        kill(child.id, SIGKILL);
        waitpid(child.id, nullptr, 0);
    }
}

std::string RunningProgram::line()
{
    auto const deadline = steady_clock::now() + 30s;
    std::size_t const begin = output.size();
    for (char letter = 0; readOne(child.output, letter, deadline);)
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
    auto const deadline = steady_clock::now() + 30s;
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
    auto const deadline = steady_clock::now() + 30s;
    for (char letter = 0; readOne(child.output, letter, deadline);)
    {
        output += letter;
    }
    return output;
}

void RunningProgram::send(int signalNumber) const
{
    kill(child.id, signalNumber);
}

int RunningProgram::status()
{
    int result = 0;
    if (!waitFor([&] { return waitpid(child.id, &result, WNOHANG) == child.id; }, 30s))
    {
        return -1;
    }
    ended = true;
    return WIFEXITED(result) ? WEXITSTATUS(result) : -1;
}

}
