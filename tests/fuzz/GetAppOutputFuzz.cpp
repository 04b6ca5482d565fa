// Lets a child write any output, in any pieces, and end in any way.
//
// Input: seven bytes with what the system answers, and a piece of output that the fourth repeats.

#include <log/Logger.h>
#include <utils/Execute.h>

#include "fuzz/Fuzz.h"
#include "process/PipeNumbers.h"
#include "support/CallDouble.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <ios>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>

namespace Halden::Tavro::Utils
{

namespace
{

using namespace std::chrono_literals;
using namespace TestSupport;

/// The input fits into its pipe, and so does the output, as nobody reads or writes at the other end meanwhile.
constexpr std::size_t pipeSize = 65536;

enum Failure : unsigned
{
    NoStatus = 1,       // waitpid: ECHILD
    NoRead = 2,         // read: EIO at the end
    InterruptedOnce = 4 // read and waitpid: EINTR first
};

/// A child, as the system tells of it.
struct System
{
    pid_t child{0};
    int status{0};
    unsigned running{0}; // looks to come until it has ended
    unsigned failures{0};
    std::size_t piece{0}; // of what one read gives
    int readEnd{-1};      // of the output

    bool wasKilled{false};
    bool wasReaped{false};
    bool hasFailed{false};
    std::string delivered;
};

System present;

/// @return true where the call is to fail now
bool isInterrupted()
{
    bool const interrupted = (present.failures & InterruptedOnce) != 0;
    present.failures &= ~static_cast<unsigned>(InterruptedOnce);
    errno = interrupted ? EINTR : errno;
    return interrupted;
}

}

extern "C"
{

    pid_t waitpid(pid_t child, int* status, int options)
    {
        require(child == present.child && !present.wasReaped);
        if ((present.failures & NoStatus) != 0)
        {
            present.hasFailed = true;
            errno = ECHILD;
            return -1;
        }
        if (options == WNOHANG && !present.wasKilled && present.running > 0)
        {
            --present.running;
            return 0;
        }
        present.wasReaped = true;
        *status = present.status;
        return child;
    }

    int kill(pid_t child, int signal) noexcept
    {
        require(child == present.child && signal == SIGKILL && !present.wasReaped);
        present.wasKilled = true;
        return 0;
    }

    /// Time passes in no time.
    int nanosleep(timespec const* /*duration*/, timespec* /*left*/)
    {
        return 0;
    }

    /// Looks, and never waits.
    int poll(pollfd* polled, nfds_t count, int /*timeout*/)
    {
        static auto const passOn = systemFunction<int (*)(pollfd*, nfds_t, int)>("poll");
        return passOn(polled, count, 0);
    }

    ssize_t read(int descriptor, void* buffer, std::size_t size)
    {
        static auto const passOn = systemFunction<ssize_t (*)(int, void*, std::size_t)>("read");
        if (descriptor != present.readEnd)
        {
            return passOn(descriptor, buffer, size);
        }
        if (isInterrupted())
        {
            return -1;
        }
        std::string taken(std::min(size, present.piece), '\0');
        ssize_t const count = passOn(descriptor, taken.data(), taken.size());
        if (count == 0 && (present.failures & NoRead) != 0)
        {
            present.hasFailed = true;
            errno = EIO;
            return -1;
        }
        // Copied here, where the sanitizer sees it.
        taken.resize(static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
        std::copy(taken.begin(), taken.end(), static_cast<char*>(buffer));
        present.delivered += taken;
        return count;
    }
}

namespace
{

/// A child that has ended and that nobody reaps, as waitpid() above does not.
pid_t endedChild()
{
    static pid_t const child = []
    {
        pid_t const forked = fork();
        if (forked == 0)
        {
            _exit(0);
        }
        return forked;
    }();
    return child;
}

std::string repeated(std::string const& piece, std::size_t times)
{
    std::size_t const longest = std::min(pipeSize, present.piece * 256); // neither too much for the pipe nor too slow
    std::string text;
    while (times-- > 0 && text.size() + piece.size() <= longest)
    {
        text += piece;
    }
    return text;
}

/// All that is in the pipe.
std::string contentOf(int descriptor)
{
    std::string text(pipeSize, '\0');
    fcntl(descriptor, F_SETFL, O_NONBLOCK);
    ssize_t const count = read(descriptor, text.data(), text.size());
    text.resize(static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
    return text;
}

void checkEnd(ExecutionResult const& result)
{
    bool const exited = WIFEXITED(present.status);
    bool const ended = WIFSIGNALED(present.status);
    require(result.exitCode.has_value() == exited && result.termSignal.has_value() == ended);
    require(!exited || static_cast<std::uint8_t>(*result.exitCode) == WEXITSTATUS(present.status));
    require(!ended || *result.termSignal == WTERMSIG(present.status));
}

/// @return nothing where it has thrown as the system's failures have it
std::optional<ExecutionResult> outputOfChild(Pipe& stdoutPipe, Pipe& stdinPipe, std::string const& input,
                                             std::chrono::milliseconds timeout)
{
    try
    {
        return getAppOutput(stdoutPipe, stdinPipe, present.child, std::istringstream(input), timeout);
    }
    catch (std::ios_base::failure const&)
    {
        require((present.failures & NoRead) != 0);
    }
    catch (std::runtime_error const&)
    {
        require((present.failures & NoStatus) != 0);
    }
    require(present.hasFailed);
    return std::nullopt;
}

void talk(std::string const& output, std::string const& input, std::chrono::milliseconds timeout, bool isLeftOpen)
{
    Pipe stdoutPipe;
    Pipe stdinPipe;
    present.readEnd = numbersOf(stdoutPipe).read;
    require(write(numbersOf(stdoutPipe).write, output.data(), output.size()) == static_cast<ssize_t>(output.size()));
    // Another process has the output's write end, too. Only the hardened build gives up waiting for it.
    int const writer = isLeftOpen && isHardened() ? dup(numbersOf(stdoutPipe).write) : -1;

    auto const result = outputOfChild(stdoutPipe, stdinPipe, input, timeout);
    if (result)
    {
        checkEnd(*result);
        require(result->output == present.delivered);
        require(result->output == output);
        require(present.wasReaped);
    }
    present.readEnd = -1;
    std::string const written = contentOf(numbersOf(stdinPipe).read);
    require(written == input || (isHardened() && input.rfind(written, 0) == 0));
    if (writer != -1)
    {
        close(writer);
    }
}

}

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size)
{
    Log::LoggerProxy::instance().setThreshold(Log::Severity::Critical);
    FuzzInput in(data, size);
    present = System{};
    unsigned const lowStatus = in.byte();
    present.status = static_cast<int>(lowStatus | (unsigned{in.byte()} << 8U));
    unsigned const kinds = in.byte();
    present.running = kinds & 3U;
    present.child =
        (kinds & 4U) != 0 ? endedChild() : 0x3fffffff; // one that the system tells of, and one it does not know
    bool const isLeftOpen = (kinds & 24U) == 24;       // seldom, as it takes as long as the child may take
    auto const timeout = (kinds & 16U) != 0 && !isLeftOpen ? 1000ms : 0ms;
    std::size_t const times = in.byte();
    present.piece = 1 + in.byte() * std::size_t{64};
    std::string const input(in.byte() * std::size_t{257}, 'i');
    present.failures = in.byte() & 7U;
    std::string const output = repeated(in.rest(), times + 1);

    int const before = lowestFreeNumber();
    talk(output, input, timeout, isLeftOpen);
    require(lowestFreeNumber() == before);
    return 0;
}

}
