#include "process/ExecuteFailingCallFixture.h"

namespace Halden::Tavro::TestSupport
{

CallDouble<ssize_t(int, void const*, std::size_t)> writeDouble{"write"};
CallDouble<int(pollfd*, nfds_t, int)> pollDouble{"poll"};
CallDouble<int(int, unsigned long, void*)> ioctlDouble{"ioctl"};
CallDouble<int(pid_t*, char const*, posix_spawn_file_actions_t const*, posix_spawnattr_t const*, char* const*,
               char* const*)>
    posixSpawnDouble{"posix_spawn"};

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

    ssize_t write(int descriptor, void const* buffer, std::size_t size)
    {
        return call(writeDouble, descriptor, buffer, size);
    }

// The C library declares the entries as only written to.
#pragma GCC diagnostic push
#ifndef __clang__
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif
    int poll(pollfd* polled, nfds_t count, int timeout)
    {
        return call(pollDouble, polled, count, timeout);
    }
#pragma GCC diagnostic pop

    int ioctlOfTest(int descriptor, unsigned long request, void* argument) noexcept
    {
        return call(ioctlDouble, descriptor, request, argument);
    }

    int posix_spawn(pid_t* child, char const* path, posix_spawn_file_actions_t const* actions,
                    posix_spawnattr_t const* attributes, char* const* arguments, char* const* environment)
    {
        return call(posixSpawnDouble, child, path, actions, attributes, arguments, environment);
    }
}
HALDEN_DOUBLE(ioctl, ioctlOfTest)

}
