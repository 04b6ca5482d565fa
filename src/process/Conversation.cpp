#include "process/Conversation.h"

#include "log/Log.h"
#include "process/ChildEnd.h"
#include "process/Descriptor.h"
#include "process/PipeEnds.h"
#include "process/SigpipeBlock.h"

#include <poll.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstddef>
#include <ios>
#include <istream>
#include <stdexcept>
#include <string_view>
#include <system_error>

namespace Halden::Tavro::Utils
{

namespace
{

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr std::streamsize chunkSize = 8192;

/// More than that stays in the pipe: a program that writes for ever must not use up this process's memory.
constexpr std::size_t largestOutput = std::size_t{64} * 1024 * 1024;

/// @return when the exact build would have made its last poll
Clock::time_point deadlineAfter(std::chrono::milliseconds timeout)
{
    auto const now = Clock::now();
    auto const longest = std::chrono::floor<std::chrono::milliseconds>(Clock::time_point::max() - now) - pollPeriod;
    auto const polls = std::clamp(timeout, 0ms, longest) / pollPeriod + 1;
    return now + polls * pollPeriod;
}

/// Rounded up, so that the time has come when poll(2) returns.
int millisecondsUntil(Clock::time_point time)
{
    auto const left = std::chrono::ceil<std::chrono::milliseconds>(time - Clock::now());
    return static_cast<int>(std::clamp(left, 0ms, std::chrono::milliseconds(INT_MAX)).count());
}

bool isToBeTriedLater(int error)
{
    return error == EAGAIN || error == EINTR;
}

/// Writes the input as the child reads it, up to its end or to that of all readers.
class InputWriter
{
public:
    // NOLINTNEXTLINE(cppcoreguidelines-pro-type-member-init): the buffer is filled before it is read
    InputWriter(Pipe& stdinPipe, std::istream const& input)
        : source(input.rdbuf())
        , end(PipeEnds::takeNonBlocking(stdinPipe, Pipe::End::Write))
    {
        if (!end.isOpen())
        {
            TAVRO_LOG(Log::Severity::Error, "Failed to open pipe to stdin for write");
            throw std::runtime_error("Failed to open pipe to stdin for write");
        }
    }

    bool isDone() const { return !end.isOpen(); }

    pollfd polled() const { return {end.get(), POLLOUT, 0}; }

    void writeSome()
    {
        if (isDone())
        {
            return;
        }
        if (rest.empty())
        {
            rest = std::string_view(buffer.data(), readSource());
        }
        if (!rest.empty())
        {
            ssize_t const count = write(end.get(), rest.data(), rest.size());
            if (count == -1 && isToBeTriedLater(errno))
            {
                return;
            }
            // Without a reader the rest of the input is dropped.
            sourceEnded = sourceEnded || count == -1;
            rest.remove_prefix(count == -1 ? rest.size() : static_cast<std::size_t>(count));
        }
        if (rest.empty() && sourceEnded)
        {
            end.close();
            block.reset();
        }
    }

private:
    /// A read that fails loses what it has got before, so each asks only for what the source holds already.
    std::size_t readSource()
    {
        std::size_t count = 0;
        // kept: [failed-input-is-the-end] a source that fails counts as ended
        while (count < buffer.size() && source.peek() != std::istream::traits_type::eof())
        {
            auto const room = static_cast<std::streamsize>(buffer.size() - count);
            source.read(buffer.data() + count, std::clamp<std::streamsize>(source.rdbuf()->in_avail(), 1, room));
            count += static_cast<std::size_t>(source.gcount());
        }
        sourceEnded = count < buffer.size();
        return count;
    }

    std::optional<SigpipeBlock> block{std::in_place};
    std::istream source; // with a state of its own
    Descriptor end;
    std::array<char, chunkSize> buffer;
    std::string_view rest; // of the buffer, not written yet
    bool sourceEnded{false};
};

/// Gathers the output up to its end, which comes when no process can write to it any more.
class OutputReader
{
public:
    explicit OutputReader(Pipe& stdoutPipe)
        : end(PipeEnds::takeNonBlocking(stdoutPipe, Pipe::End::Read))
    {
        if (!end.isOpen())
        {
            TAVRO_LOG(Log::Severity::Error, "Failed to open pipe to stdout for read");
            throw std::runtime_error("Failed to open pipe to stdout for read");
        }
    }

    bool isDone() const { return !end.isOpen(); }

    pollfd polled() const { return {wantsMore() ? end.get() : -1, POLLIN, 0}; }

    void readSome()
    {
        if (!isDone() && wantsMore())
        {
            readChunk();
        }
    }

    /// What is in the pipe by now, and not what another process may go on writing.
    std::string takeAll()
    {
        int available = 0;
        if (!isDone() && ioctl(end.get(), FIONREAD, &available) == 0)
        {
            std::size_t const whole = output.size() + static_cast<std::size_t>(available);
            while (output.size() < whole && readChunk())
            {
            }
        }
        return std::move(output);
    }

private:
    bool wantsMore() const { return output.size() < largestOutput; }

    /// @return whether there was anything
    bool readChunk()
    {
        std::array<char, chunkSize> chunk; // NOLINT(cppcoreguidelines-pro-type-member-init): filled by what follows
        ssize_t const count = read(end.get(), chunk.data(), chunk.size());
        if (count == -1 && !isToBeTriedLater(errno))
        {
            // As the stream of the exact build does.
            throw std::ios_base::failure("basic_filebuf::underflow error reading the file",
                                         std::error_code(errno, std::system_category()));
        }
        if (count == 0)
        {
            end.close();
        }
        if (count > 0)
        {
            output.append(chunk.data(), static_cast<std::size_t>(count));
        }
        return count > 0;
    }

    Descriptor end;
    std::string output;
};

/// The child up to its end, which is noticed at once where the system has a descriptor for that, else within some
/// milliseconds. A child that is abandoned before is killed and reaped.
class Child
{
public:
    explicit Child(pid_t id)
        : id(id)
        , event(static_cast<int>(syscall(SYS_pidfd_open, id, 0)))
    {
    }

    Child(Child const&) = delete;
    Child& operator=(Child const&) = delete;

    ~Child()
    {
        // One that somebody else has reaped may have left its number to a stranger.
        if (!hasEnded() && reapQuietly(WNOHANG) == 0)
        {
            reapQuietly(kill(id, SIGKILL) == 0 ? 0 : WNOHANG);
        }
    }

    bool hasEnded() const { return status.has_value(); }

    pollfd polled() const { return {hasEnded() ? -1 : event.get(), POLLIN, 0}; }

    Clock::time_point nextLook(Clock::time_point deadline)
    {
        if (hasEnded() || event.isOpen())
        {
            return deadline;
        }
        pause = std::min(pause * 2, pollPeriod);
        return std::min(deadline, Clock::now() + pause);
    }

    /// @param isTold whether the descriptor has reported the end
    void look(bool isTold)
    {
        if (hasEnded() || (event.isOpen() && !isTold))
        {
            return;
        }
        ChildLook const seen = lookAt(id);
        if (seen.answer == ChildLook::Answer::Ended)
        {
            status = seen.status;
        }
        else if (isTold)
        {
            event.close(); // a debugger hears of the end before this process does: look now and then
        }
    }

    void end()
    {
        if (!hasEnded())
        {
            status = killAndReap(id);
        }
    }

    std::optional<int> status; // of waitpid(2), once it has ended

private:
    pid_t reapQuietly(int options) const
    {
        int unused = 0;
        pid_t answer = 0;
        do
        {
            answer = waitpid(id, &unused, options);
        } while (answer == -1 && errno == EINTR);
        return answer;
    }

    pid_t const id;
    Descriptor event;
    std::chrono::milliseconds pause{1};
};

}

ExecutionResult converse(Pipe& stdoutPipe, Pipe& stdinPipe, pid_t id, std::istream const& input,
                         std::chrono::milliseconds timeout)
{
    auto const deadline = deadlineAfter(timeout);
    Child child(id);
    InputWriter writer(stdinPipe, input);
    writer.writeSome();
    OutputReader reader(stdoutPipe);
    PipeEnds::close(stdoutPipe, Pipe::End::Write);

    bool isTimeUp = false;
    while (!isTimeUp && !(writer.isDone() && reader.isDone() && child.hasEnded()))
    {
        std::array polled{writer.polled(), reader.polled(), child.polled()};
        poll(polled.data(), polled.size(), millisecondsUntil(child.nextLook(deadline)));
        isTimeUp = Clock::now() >= deadline;
        writer.writeSome();
        reader.readSome();
        child.look(polled[2].revents != 0);
    }
    child.end();
    return makeResult(child.status, reader.takeAll());
}

}
