#pragma once

#include <utils/Execute.h>

#include "process/ExecuteFixture.h"
#include "process/PipeNumbers.h"
#include "support/ChildProcess.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace Halden::Tavro::TestSupport
{

/// executeApp in a child of its own, whose execv tells its arguments and returns.
class ExecuteAppFixture : public ExecuteFixture
{
protected:
    ExecuteAppFixture()
    {
        dup2Double.replace(
            [this](int from, int to)
            {
                if (!nameOf(from).empty())
                {
                    events.add("dup2 " + nameOf(from) + " " + std::to_string(to));
                }
                return dup2Double.passOn(from, to);
            });
        setenvDouble.replace(
            [this](char const* variable, char const* value, int overwrite)
            {
                events.add(std::string("setenv ") + variable + "=" + value + " " + std::to_string(overwrite));
                return setenvDouble.passOn(variable, value, overwrite);
            });
        execvDouble.replace([this](char const* path, char* const* arguments) { return tellExecv(path, arguments); });
        tellLogLines();
    }

    int tellExecv(char const* path, char* const* arguments)
    {
        std::string event = std::string("execv ") + path;
        for (char* const* next = arguments; *next != nullptr; ++next)
        {
            event.append(" '").append(*next).append("'");
        }
        events.add(event);
        errno = ENOENT;
        return -1;
    }

    ChildResult run(bool withStderr, Utils::Environment const& environment)
    {
        return runInChild(
            [&]
            {
                Utils::Pipe in;
                Utils::Pipe out;
                Utils::Pipe err;
                name("stdin", numbersOf(in).read, numbersOf(in).write);
                name("stdout", numbersOf(out).read, numbersOf(out).write);
                name("stderr", numbersOf(err).read, numbersOf(err).write);
                std::array<char*, 3> const arguments{program.data(), argument.data(), nullptr};
                Utils::executeApp(in, out, withStderr ? &err : nullptr, program.c_str(), arguments.data(), environment);
                return 0;
            });
    }

    std::string program{"/program"};
    std::string argument{"argument"};
};

/// execute with a real child, in which execv may be replaced.
class ForkFixture : public ExecuteAppFixture
{
protected:
    ForkFixture()
    {
        pipe2Double.replace(
            [this](int* ends, int flags)
            {
                int const result = pipe2Double.passOn(ends, flags);
                if (flags == O_CLOEXEC && result == 0)
                {
                    name(pipe2Double.count() == 1 ? "stdout" : "stdin", ends[0], ends[1]);
                    events.add("pipe2 " + nameOf(ends[0]) + " " + nameOf(ends[1]));
                }
                return result;
            });
        forkDouble.replace(
            [this]
            {
                events.add("fork");
                pid_t const result = forkDouble.passOn();
                isChild = result == 0;
                return result;
            });
        waitpidDouble.replace([](pid_t process, int* status, int) { return waitpidDouble.passOn(process, status, 0); });
    }

    Utils::ExecutionResult call(std::vector<std::string> const& arguments = {},
                                Utils::Environment const& environment = {})
    {
        std::istringstream const input("input");
        return Utils::execute("/program", arguments, environment, input, std::chrono::hours(1));
    }

    /// A call that fails at this end, and says so in the log.
    void expectFailureToOpen(std::string const& end, std::string const& text)
    {
        failToOpen(end);
        log.expect(free(Log::Severity::Error, text));
        EXPECT_THROW(call(), std::runtime_error);
    }

    /// Keeps the events of one of the two processes only.
    void tellOnly(bool child)
    {
        closeDouble.replace([this, child](int descriptor)
                            { return isChild == child ? closeAndTell(descriptor) : closeDouble.passOn(descriptor); });
        fcloseDouble.replace([this, child](std::FILE* file)
                             { return isChild == child ? fcloseAndTell(file) : fcloseDouble.passOn(file); });
        log.onLine(
            [this, child](LogLine const& line)
            {
                if (isChild == child)
                {
                    events.add("log " + std::to_string(static_cast<int>(line.severity)) + " " + line.text);
                }
            });
    }

    std::vector<std::string> closings() const
    {
        auto all = events.list();
        auto const isOther = [](std::string const& event)
        { return event.rfind("close ", 0) != 0 && event.rfind("fclose ", 0) != 0; };
        all.erase(std::remove_if(all.begin(), all.end(), isOther), all.end());
        return all;
    }

    bool isChild{false};
};

}
