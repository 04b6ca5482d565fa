#include <utils/Pipe.h>

#include "build/Hardened.h"

#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <stdexcept>
#include <string>

namespace Halden::Tavro::Utils
{

namespace
{

constexpr std::size_t bufferSize = 8192;

void closeOnce(int& descriptor)
{
    if (descriptor >= 0)
    {
        ::close(descriptor);
    }
    descriptor = -1;
}

void closeEnd(int& descriptor)
{
    if constexpr (hardened)
    {
        closeOnce(descriptor);
    }
    else
    {
        ::close(descriptor); // kept: [pipe-end-closed-again] the field keeps the number, and users close it again
    }
}

int use(int end, int standardDescriptor, char const* name)
{
    int const result = dup2(end, standardDescriptor);
    if (result == -1)
    {
        int const error = errno;
        throw std::runtime_error(std::string("Failed to set ") + name + " to the pipe, error was " + strerror(error));
    }
    return result;
}

}

Pipe::Pipe()
    : Pipe(::pipe)
{
}

Pipe::Pipe(int (*create)(int* ends))
{
    std::array ends{readFd, writeFd};
    bool const created = create(ends.data()) == 0;
    readFd = ends[0];
    writeFd = ends[1];
    if (!created)
    {
        close();
        throw std::runtime_error("Failed to create pipe");
    }
}

Pipe::~Pipe()
{
    close();
}

void Pipe::close()
{
    closeOnce(readFd);
    closeOnce(writeFd);
}

void Pipe::close(End end) // NOLINT(readability-make-member-function-const): the descriptor is the object's
{
    if (end == End::Read)
    {
        closeEnd(readFd);
    }
    else if (end == End::Write)
    {
        closeEnd(writeFd);
    }
}

int Pipe::useAsStdin() const
{
    return use(readFd, STDIN_FILENO, "stdin");
}

int Pipe::useAsStdout() const
{
    return use(writeFd, STDOUT_FILENO, "stdout");
}

int Pipe::useAsStderr() const
{
    return use(writeFd, STDERR_FILENO, "stderr");
}

__gnu_cxx::stdio_filebuf<char> Pipe::bufferRead() const
{
    return {readFd, std::ios_base::in, bufferSize};
}

__gnu_cxx::stdio_filebuf<char> Pipe::bufferWrite() const
{
    return {writeFd, std::ios_base::out, bufferSize};
}

}
