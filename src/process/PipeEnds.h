#pragma once

#include "process/Descriptor.h"

#include <utils/Pipe.h>

#include <fcntl.h>
#include <unistd.h>

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

    /// For an end that somebody else closes.
    static void forget(Pipe& pipe, Pipe::End end) { numberOf(pipe, end) = -1; }

    static int& numberOf(Pipe& pipe, Pipe::End end) { return end == Pipe::End::Read ? pipe.readFd : pipe.writeFd; }

    /// Takes an end out of its Pipe, for use without waiting, see O_NONBLOCK.
    ///
    /// @return nothing, and the Pipe keeps its end, when that is not open
    static Descriptor takeNonBlocking(Pipe& pipe, Pipe::End end)
    {
        int const number = numberOf(pipe, end);
        int const flags = fcntl(number, F_GETFL);
        if (flags == -1 || fcntl(number, F_SETFL, flags | O_NONBLOCK) == -1)
        {
            return {};
        }
        forget(pipe, end);
        return Descriptor(number);
    }
};

}
