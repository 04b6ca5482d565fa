#pragma once

#include <utils/Export.h>

#include <ext/stdio_filebuf.h>

namespace Halden::Tavro::Utils
{

/// Both ends of one anonymous pipe, see pipe(7), with what parent and child do with them around a fork(2).
///
///     Pipe pipe;
///     if (fork() == 0)
///     {
///         pipe.useAsStdout();
///         pipe.close(); // and so on, up to execv(3) or _exit(2)
///     }
///     pipe.close(Pipe::End::Write); // else there is no end of file
///     auto buffer = pipe.bufferRead();
///
/// To run a program use execute(), which takes care of all that is said here.
///
/// Threads: a Pipe belongs to one thread at a time. Every program that any thread starts meanwhile inherits both ends,
/// so that a reader sees no end of file before that program has ended as well.
///
/// Limits: a stream buffer closes its end, but the Pipe still has the number and closes it again, with close() or in
/// its destructor. By then the number may belong to a file that another thread has opened. Use the buffers only where
/// nothing else opens descriptors until the Pipe is gone: in a process with one thread, or in a forked child.
///
/// Hazards of the exact build:
/// - close(End) keeps the number too, and it is closed again in the same way. The hardened build forgets it.
class HALDEN_CPPUTILS_EXPORT Pipe
{
public:
    /// One end of a pipe.
    enum class End
    {
        Write = 0, ///< takes the bytes in
        Read = 1   ///< gives them out
    };

    /// @throws std::runtime_error "Failed to create pipe"
    Pipe();

    Pipe(Pipe const&) = delete;
    Pipe& operator=(Pipe const&) = delete;

    /// As close().
    ~Pipe();

    /// Closes both ends and forgets them, so that a second call does nothing. Errors are ignored.
    void close();

    /// Closes one end, and forgets it in the hardened build. Errors are ignored.
    void close(End end);

    /// Makes the read end the process's standard input as well, see dup2(2).
    ///
    /// @return the new descriptor, 0
    /// @throws std::runtime_error "Failed to set stdin to the pipe, error was " and the reason
    int useAsStdin() const;

    /// Makes the write end the process's standard output as well; otherwise as useAsStdin(), with 1 and "stdout".
    int useAsStdout() const;

    /// Makes the write end the process's standard error as well; otherwise as useAsStdin(), with 2 and "stderr".
    int useAsStderr() const;

    /// A buffer to read from. It closes the read end when it is closed or destroyed, see the limits above.
    ///
    /// @return closed when the end cannot be opened: ask is_open(), as a stream over it looks good until it is used
    __gnu_cxx::stdio_filebuf<char> bufferRead() const;

    /// A buffer to write into; otherwise as bufferRead(), with the write end.
    __gnu_cxx::stdio_filebuf<char> bufferWrite() const;

private:
    friend struct PipeEnds;

    /// @param create as pipe(2)
    explicit Pipe(int (*create)(int* ends));

    int readFd{-1};  // -1 once close() has closed it
    int writeFd{-1}; // likewise
};

}
