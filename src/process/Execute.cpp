#include <utils/Execute.h>

#include "log/Log.h"
#include "log/LogErrno.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <ostream>
#include <stdexcept>

namespace Halden::Tavro::Utils
{

/// Keeps a Pipe from closing a number again, which may be that of another thread's file by then.
struct PipeEnds
{
    /// A Pipe whose ends no program inherits, not even one that another thread is about to start.
    static Pipe makeCloseOnExec()
    {
        return Pipe([](int* ends) { return pipe2(ends, O_CLOEXEC); });
    }

    static void close(Pipe& pipe, Pipe::End end)
    {
        pipe.close(end);
        forget(pipe, end);
    }

    /// For an end that a stream buffer closes.
    static void forget(Pipe& pipe, Pipe::End end) { (end == Pipe::End::Read ? pipe.readFd : pipe.writeFd) = -1; }
};

namespace
{

constexpr std::chrono::milliseconds pollPeriod{10};

/// Keeps SIGPIPE from the calling thread, as a child may end without reading.
class SigpipeBlock
{
public:
    SigpipeBlock()
    {
        sigemptyset(&sigpipe);
        sigaddset(&sigpipe, SIGPIPE);
        pthread_sigmask(SIG_BLOCK, &sigpipe, &maskBefore);
        sigset_t pending;
        sigpending(&pending);
        wasPending = sigismember(&pending, SIGPIPE) == 1;
    }

    SigpipeBlock(SigpipeBlock const&) = delete;
    SigpipeBlock& operator=(SigpipeBlock const&) = delete;

    ~SigpipeBlock()
    {
        if (!wasPending)
        {
            consume();
        }
        pthread_sigmask(SIG_SETMASK, &maskBefore, nullptr);
    }

private:
    void consume() const
    {
        timespec const noTime{};
        while (sigtimedwait(&sigpipe, nullptr, &noTime) == -1 && errno == EINTR)
        {
        }
    }

    sigset_t sigpipe{};
    sigset_t maskBefore{};
    bool wasPending{false};
};

[[noreturn]] void failWithoutStatus(int error)
{
    TAVRO_LOG(Log::Severity::Error, "Failed to get status of child process");
    throw std::runtime_error(strerror(error));
}

void writeInput(Pipe& stdinPipe, std::istream const& input)
{
    SigpipeBlock const block; // outlives the buffer, which may write when it is destroyed
    auto buffer = stdinPipe.bufferWrite();
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
    auto buffer = stdoutPipe.bufferRead();
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

void killChild(pid_t child)
{
    TAVRO_LOG(Log::Severity::Debug, "Send kill signal to child process %d", child);
    int const result = kill(child, SIGKILL);
    if (result == 0)
    {
        TAVRO_LOG(Log::Severity::Info, "kill(%d, SIGKILL) succeeded with %d", child, result);
        return;
    }
    TAVRO_LOG_ERRNO("kill(%d, SIGKILL) failed with %d errno = %d (%s)", child, result);
    if (errno == EPERM)
    {
        TAVRO_LOG(Log::Severity::Error, "Parent has no permission to kill child process");
        throw std::runtime_error(strerror(EPERM));
    }
}

/// @return nothing when a signal handler has interrupted the wait
std::optional<int> reap(pid_t child)
{
    int status = 0;
    pid_t answer = 0;
    while (answer == 0)
    {
        answer = waitpid(child, &status, 0);
    }
    int const error = errno;
    if (answer == child)
    {
        TAVRO_LOG(Log::Severity::Debug, "Child finished after kill");
        return status;
    }
    if (answer == -1 && error != EINTR)
    {
        failWithoutStatus(error);
    }
    return std::nullopt; // kept: leaves a zombie
}

/// @return nothing when a signal handler has interrupted the last wait
std::optional<int> waitForEnd(pid_t child, std::chrono::milliseconds timeout)
{
    std::int64_t const limit = timeout / pollPeriod;
    for (std::int64_t i = 0;; ++i)
    {
        int status = 0;
        pid_t const answer = waitpid(child, &status, WNOHANG);
        int const error = errno;
        if (answer == child)
        {
            TAVRO_LOG(Log::Severity::Debug, "Child finished");
            return status;
        }
        if (answer == -1 && error != EINTR)
        {
            failWithoutStatus(error);
        }
        if (answer == 0)
        {
            sleepOnePeriod();
        }
        if (i >= limit)
        {
            if (answer != 0)
            {
                return std::nullopt; // kept: the child is neither killed nor reaped
            }
            killChild(child);
            return reap(child);
        }
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

}

ExecutionResult execute(std::string const& path, std::vector<std::string> const& arguments,
                        Environment const& environment, std::istream const& input, std::chrono::milliseconds timeout)
{
    TAVRO_LOG(Log::Severity::Trace, "execute()");
    Pipe stdoutPipe = PipeEnds::makeCloseOnExec();
    Pipe stdinPipe = PipeEnds::makeCloseOnExec();
    auto const pointers = toArgumentVector(path, arguments);
    pid_t const child = fork();
    if (child == -1)
    {
        throw std::runtime_error("Failed to fork to execute the other process");
    }
    if (child == 0)
    {
        executeApp(stdinPipe, stdoutPipe, nullptr, path.c_str(), pointers.data(), environment);
    }
    PipeEnds::close(stdinPipe, Pipe::End::Read); // while it is open, a write to a dead child would wait for ever
    return getAppOutput(stdoutPipe, stdinPipe, child, input, timeout);
}

void executeApp(Pipe& stdinPipe, Pipe& stdoutPipe, Pipe* stderrPipe, char const* path, char* const* arguments,
                Environment const& environment)
{
    TAVRO_LOG(Log::Severity::Trace, "executeApp()");
    stdinPipe.useAsStdin();
    stdoutPipe.useAsStdout();
    if (stderrPipe != nullptr)
    {
        stderrPipe->useAsStderr();
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
    TAVRO_LOG(Log::Severity::Error, "execve() failed with %s", strerror(error));
    _exit(result);
}

ExecutionResult getAppOutput(Pipe& stdoutPipe, Pipe& stdinPipe, pid_t child, std::istream const& input,
                             std::chrono::milliseconds timeout)
{
    TAVRO_LOG(Log::Severity::Trace, "getAppOutput()");
    TAVRO_LOG(Log::Severity::Debug, "Timeout is set to %fs", std::chrono::duration<double>(timeout).count());
    writeInput(stdinPipe, input);
    auto output = openOutput(stdoutPipe);
    PipeEnds::close(stdoutPipe, Pipe::End::Write);

    auto const status = waitForEnd(child, timeout);

    ExecutionResult result;
    result.output = readToEnd(output);
    if (status && WIFEXITED(*status))
    {
        result.exitCode = static_cast<std::int8_t>(WEXITSTATUS(*status));
    }
    else if (status && WIFSIGNALED(*status))
    {
        result.termSignal = static_cast<std::int8_t>(WTERMSIG(*status));
    }
    return result;
}

}
