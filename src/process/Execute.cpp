#include <utils/Execute.h>

#include "build/Hardened.h"
#include "log/Log.h"
#include "process/ChildEnd.h"
#include "process/Conversation.h"
#include "process/PipeEnds.h"
#include "process/SigpipeBlock.h"
#include "process/Spawn.h"

#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <new>
#include <ostream>
#include <stdexcept>

namespace Halden::Tavro::Utils
{

namespace
{

/// The buffer of an end, which closes it. One that finds no memory has done so already.
__gnu_cxx::stdio_filebuf<char> bufferOf(Pipe& pipe, Pipe::End end)
{
    try
    {
        return end == Pipe::End::Write ? pipe.bufferWrite() : pipe.bufferRead();
    }
    catch (std::bad_alloc const&)
    {
        PipeEnds::forget(pipe, end);
        throw;
    }
}

void writeInput(Pipe& stdinPipe, std::istream const& input)
{
    SigpipeBlock const block; // outlives the buffer, which may write when it is destroyed
    auto buffer = bufferOf(stdinPipe, Pipe::End::Write);
    if (!buffer.is_open())
    {
        TAVRO_LOG(Log::Severity::Error, "Failed to open pipe to stdin for write");
        throw std::runtime_error("Failed to open pipe to stdin for write");
    }
    PipeEnds::forget(stdinPipe, Pipe::End::Write);
    std::ostream stream(&buffer);
    stream << input.rdbuf(); // fails when there is no input, which does no harm
    stream.flush();
    // The buffer closes the end now, so that the child sees the end of its input.
}

__gnu_cxx::stdio_filebuf<char> openOutput(Pipe& stdoutPipe)
{
    auto buffer = bufferOf(stdoutPipe, Pipe::End::Read);
    if (!buffer.is_open())
    {
        TAVRO_LOG(Log::Severity::Error, "Failed to open pipe to stdout for read");
        throw std::runtime_error("Failed to open pipe to stdout for read");
    }
    PipeEnds::forget(stdoutPipe, Pipe::End::Read);
    return buffer;
}

std::string readToEnd(std::streambuf& buffer)
{
    std::string text;
    std::array<char, 4096> part; // NOLINT(cppcoreguidelines-pro-type-member-init): filled by what follows
    while (std::streamsize const count = buffer.sgetn(part.data(), part.size()))
    {
        text.append(part.data(), static_cast<std::size_t>(count));
    }
    return text;
}

void sleepOnePeriod()
{
    timespec left{0, std::chrono::nanoseconds(pollPeriod).count()};
    while (nanosleep(&left, &left) == -1 && errno == EINTR)
    {
    }
}

/// @return nothing when a signal handler has interrupted the last wait
std::optional<int> waitForEnd(pid_t child, std::chrono::milliseconds timeout)
{
    std::int64_t const limit = timeout / pollPeriod;
    for (std::int64_t i = 0;; ++i)
    {
        ChildLook const seen = lookAt(child);
        if (seen.answer == ChildLook::Answer::Ended)
        {
            return seen.status;
        }
        if (seen.answer == ChildLook::Answer::Running)
        {
            sleepOnePeriod();
        }
        if (i >= limit)
        {
            // kept: [interrupted-wait] after an interrupted look the child is neither killed nor reaped
            return seen.answer == ChildLook::Answer::Running ? killAndReap(child) : std::nullopt;
        }
    }
}

/// What getAppOutput() does in the exact build: one thing after the other.
ExecutionResult talkInTurn(Pipe& stdoutPipe, Pipe& stdinPipe, pid_t child, std::istream const& input,
                           std::chrono::milliseconds timeout)
{
    writeInput(stdinPipe, input);
    auto output = openOutput(stdoutPipe);
    PipeEnds::close(stdoutPipe, Pipe::End::Write);
    auto const status = waitForEnd(child, timeout);
    return makeResult(status, readToEnd(output));
}

void attach(Pipe const& stdinPipe, Pipe const& stdoutPipe, Pipe const* stderrPipe)
{
    stdinPipe.useAsStdin();
    stdoutPipe.useAsStdout();
    if (stderrPipe != nullptr)
    {
        stderrPipe->useAsStderr();
    }
}

void attachOrExit(Pipe const& stdinPipe, Pipe const& stdoutPipe, Pipe const* stderrPipe)
{
    try
    {
        attach(stdinPipe, stdoutPipe, stderrPipe);
    }
    catch (...)
    {
        _exit(255); // as where the program cannot be started
    }
}

/// The elements point into the caller's strings.
std::vector<char*> toArgumentVector(std::string const& path, std::vector<std::string> const& arguments)
{
    // NOLINTNEXTLINE(cppcoreguidelines-pro-type-const-cast): execv(3) changes nothing, whatever its type says
    auto const toPointer = [](std::string const& text) { return const_cast<char*>(text.c_str()); };
    std::vector<char*> pointers;
    pointers.reserve(arguments.size() + 2);
    pointers.push_back(toPointer(path));
    for (auto const& argument : arguments)
    {
        pointers.push_back(toPointer(argument));
    }
    pointers.push_back(nullptr);
    return pointers;
}

/// Forks a child that becomes the program.
pid_t forkInto(Pipe& stdinPipe, Pipe& stdoutPipe, char const* path, char* const* arguments,
               Environment const& environment)
{
    pid_t const child = fork();
    if (child == -1)
    {
        throw std::runtime_error("Failed to fork to execute the other process");
    }
    if (child == 0)
    {
        executeApp(stdinPipe, stdoutPipe, nullptr, path, arguments, environment);
    }
    return child;
}

pid_t start(Pipe& stdinPipe, Pipe& stdoutPipe, char const* path, char* const* arguments, Environment const& environment)
{
    if constexpr (hardened)
    {
        if (auto const child = spawn(stdinPipe, stdoutPipe, path, arguments, environment))
        {
            return *child;
        }
    }
    return forkInto(stdinPipe, stdoutPipe, path, arguments, environment);
}

}

ExecutionResult execute(std::string const& path, std::vector<std::string> const& arguments,
                        Environment const& environment, std::istream const& input, std::chrono::milliseconds timeout)
{
    TAVRO_LOG(Log::Severity::Trace, "execute()");
    Pipe stdoutPipe = PipeEnds::makeCloseOnExec();
    Pipe stdinPipe = PipeEnds::makeCloseOnExec();
    auto const pointers = toArgumentVector(path, arguments);
    auto const child = start(stdinPipe, stdoutPipe, path.c_str(), pointers.data(), environment);
    PipeEnds::close(stdinPipe, Pipe::End::Read); // while it is open, a write to a dead child would wait for ever
    return getAppOutput(stdoutPipe, stdinPipe, child, input, timeout);
}

void executeApp(Pipe& stdinPipe, Pipe& stdoutPipe, Pipe* stderrPipe, char const* path, char* const* arguments,
                Environment const& environment)
{
    TAVRO_LOG(Log::Severity::Trace, "executeApp()");
    if constexpr (hardened)
    {
        attachOrExit(stdinPipe, stdoutPipe, stderrPipe);
    }
    else
    {
        // kept: [child-throws-on] what it throws goes on in the child, into the caller's code
        attach(stdinPipe, stdoutPipe, stderrPipe);
    }
    stdinPipe.close();
    stdoutPipe.close();
    if (stderrPipe != nullptr)
    {
        stderrPipe->close();
    }
    for (auto const& [name, value] : environment)
    {
        setenv(name.c_str(), value.c_str(), 1);
    }
    int const result = execv(path, arguments);
    int const error = errno;
    // kept: [execve-for-execv] the text says execve(), which people search logs for
    TAVRO_LOG(Log::Severity::Error, "execve() failed with %s", strerror(error));
    _exit(result);
}

ExecutionResult getAppOutput(Pipe& stdoutPipe, Pipe& stdinPipe, pid_t child, std::istream const& input,
                             std::chrono::milliseconds timeout)
{
    TAVRO_LOG(Log::Severity::Trace, "getAppOutput()");
    TAVRO_LOG(Log::Severity::Debug, "Timeout is set to %fs", std::chrono::duration<double>(timeout).count());
    if constexpr (hardened)
    {
        return converse(stdoutPipe, stdinPipe, child, input, timeout);
    }
    else
    {
        return talkInTurn(stdoutPipe, stdinPipe, child, input, timeout);
    }
}

}
