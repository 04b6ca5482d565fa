#include "process/ExecuteFixture.h"

#include <sys/syscall.h>
#include <unistd.h>

namespace Halden::Tavro::TestSupport
{

std::atomic<bool> underTest{false};
CallDouble<int(int*, int)> pipe2Double{"pipe2"};
CallDouble<int(int, int)> dup2Double{"dup2"};
CallDouble<int(int)> closeDouble{"close"};
CallDouble<int(std::FILE*)> fcloseDouble{"fclose"};
CallDouble<std::FILE*(int, char const*)> fdopenDouble{"fdopen"};
CallDouble<ssize_t(int, void*, std::size_t)> readDouble{"read"};
CallDouble<int(int, int, long)> fcntlDouble{"fcntl"};
CallDouble<int(pid_t, unsigned)> pidfdOpenDouble{"pidfd_open"};
CallDouble<pid_t()> forkDouble{"fork"};
CallDouble<pid_t(pid_t, int*, int)> waitpidDouble{"waitpid"};
CallDouble<int(pid_t, int)> killDouble{"kill"};
CallDouble<int(timespec const*, timespec*)> nanosleepDouble{"nanosleep"};
CallDouble<int(char const*, char const*, int)> setenvDouble{"setenv"};
CallDouble<int(char const*, char* const*)> execvDouble{"execv"};

namespace
{

template <typename Result, typename... Arguments>
Result call(CallDouble<Result(Arguments...)>& callDouble, Arguments... arguments)
{
    return underTest ? callDouble(arguments...) : callDouble.passOn(arguments...);
}

}

extern "C"
{

    int pipe2(int* ends, int flags) noexcept
    {
        return call(pipe2Double, ends, flags);
    }

    int dup2(int from, int to) noexcept
    {
        return call(dup2Double, from, to);
    }

    int close(int descriptor)
    {
        return call(closeDouble, descriptor);
    }

    int fclose(std::FILE* file)
    {
        return call(fcloseDouble, file);
    }

    std::FILE* fdopen(int descriptor, char const* mode) noexcept
    {
        return call(fdopenDouble, descriptor, mode);
    }

    ssize_t read(int descriptor, void* buffer, std::size_t size)
    {
        return call(readDouble, descriptor, buffer, size);
    }

    int fcntlOfTest(int descriptor, int command, long argument)
    {
        return call(fcntlDouble, descriptor, command, argument);
    }

    pid_t fork() noexcept
    {
        return call(forkDouble);
    }

    /// Only of interest for the descriptor of a process, and the C library's own way for all else.
    long syscallOfTest(long number, long first, long second, long third, long fourth, long fifth, long sixth) noexcept
    {
        if (number == SYS_pidfd_open && underTest)
        {
            return pidfdOpenDouble(static_cast<pid_t>(first), static_cast<unsigned>(second));
        }
        return systemFunction<decltype(&syscall)>("syscall")(number, first, second, third, fourth, fifth, sixth);
    }

    pid_t waitpid(pid_t process, int* status, int options)
    {
        return call(waitpidDouble, process, status, options);
    }

    int kill(pid_t process, int signalNumber) noexcept
    {
        return call(killDouble, process, signalNumber);
    }

    int nanosleep(timespec const* duration, timespec* left)
    {
        return call(nanosleepDouble, duration, left);
    }

    int setenv(char const* name, char const* value, int overwrite) noexcept
    {
        return call(setenvDouble, name, value, overwrite);
    }

    int execv(char const* path, char* const* arguments) noexcept
    {
        return call(execvDouble, path, arguments);
    }
}
HALDEN_DOUBLE(fcntl, fcntlOfTest)
HALDEN_DOUBLE(syscall, syscallOfTest)

}
