#pragma once

#include <utils/Export.h>
#include <utils/Pipe.h>

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <istream>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace Halden::Tavro::Utils
{

/// How a program has ended, and what it has written.
///
/// At most one of the first two is set. Neither is when a signal handler has interrupted the last wait; nobody has
/// reaped the child then, and when the time was up, it may not even have been killed. Install handlers with SA_RESTART.
struct ExecutionResult
{
    std::optional<std::int8_t> termSignal; ///< the signal that has ended it
    std::optional<std::int8_t> exitCode;   ///< its exit status as a signed byte: 255 reads as -1, 128 as -128
    std::string output;                    ///< all of its standard output
};

/// Names and values. A pair that setenv(3) refuses, such as one with an empty name, is left out.
using Environment = std::vector<std::pair<std::string, std::string>>;

/// Runs a program with the given input, waits for its end, and kills it when that takes too long: termSignal is then
/// SIGKILL, unless the program has ended by itself in that moment.
///
///     std::istringstream const input("3\n1\n2\n");
///     auto const result = execute("/usr/bin/sort", {"-n"}, {{"LC_ALL", "C"}}, input, 2s);
///     if (result.exitCode == 0)
///
/// The time-out limits the wait alone, which begins when all input is written and is followed by the reading of what
/// the program has written:
/// - A program that lives without reading blocks the caller for as long, once its input exceeds the 64 KiB that a pipe
///   holds. Limit the input to that, or run only programs that read it. A program that ends or closes its standard
///   input does not block: the rest of the input is dropped.
/// - A program that writes more than 64 KiB stops there until the time-out kills it, and the output is what fitted. If
///   that happens while it still has more than 64 KiB of input to come, the call never returns. Let the program write
///   to a file.
/// - A program that leaves a process behind with the same standard output blocks the caller until that has ended too.
///   Give such a process another standard output.
///
/// The wait polls every 10 ms, so a program that ends at once still costs that. There are timeout / 10 ms + 1 polls, at
/// least one.
///
/// The program gets the standard error, directory, signal mask and ignored signals of this process, and all descriptors
/// that are not close-on-exec, but not those of other calls. A path without a slash is one in the current directory:
/// PATH is not searched. A program that cannot be started gives the exit code -1 and no output, like one that ends
/// with 255; only the log tells them apart.
///
/// Descriptors 0, 1 and 2 must be open in this process. It must not ignore SIGCHLD, nor reap children that it does not
/// know: a child that is reaped elsewhere is an exception here, "No child processes".
///
/// The fork(2) copies the page tables of this process. On a virtual x86 machine a call costs about 0.4 ms of the
/// caller's processor time, and 30 ms with 1 GiB of resident memory: run programs from a small process.
///
/// When the child cannot attach its pipes, the exception leaves execute() there, so that the caller's code goes on in
/// two processes. Whoever catches exceptions of execute() compares getpid(2), and ends the child with _exit(2).
///
/// Threads: may be called from several at once. No thread may change the environment during a call. In the child,
/// between fork and execv(3), nothing is allocated or locked but by setenv(3) and by log calls that are enabled.
///
/// @param path        the program, also its argument 0
/// @param arguments   those from 1 on
/// @param environment added to this process's own, in this order; replaces what has the same name
/// @param input       from where it stands up to its end, any bytes; a read that fails counts as the end
/// @throws std::runtime_error "Failed to create pipe", "Failed to fork to execute the other process", or as
///         getAppOutput()
HALDEN_CPPUTILS_EXPORT ExecutionResult execute(std::string const& path, std::vector<std::string> const& arguments,
                                               Environment const& environment, std::istream const& input,
                                               std::chrono::milliseconds timeout);

/// What execute() does in the child: turns this process into the program, or ends it with status 255.
///
/// For processes that have just been forked. Closes both ends of the Pipes.
///
/// @param stdinPipe  its read end becomes the standard input
/// @param stdoutPipe its write end becomes the standard output
/// @param stderrPipe its write end becomes the standard error; null leaves that as it is
/// @param path       as for execv(3)
/// @param arguments  as for execv(3), with a null pointer at the end
/// @throws std::runtime_error as Pipe::useAsStdin() and its likes. The exception goes on in the child, up into the code
///         that forked it: catch it there and end the child with _exit(2).
[[noreturn]] HALDEN_CPPUTILS_EXPORT void executeApp(Pipe& stdinPipe, Pipe& stdoutPipe, Pipe* stderrPipe,
                                                    char const* path, char* const* arguments,
                                                    Environment const& environment);

/// What execute() does in the parent: writes the input, waits, kills where needed, and reads the output.
///
/// Closes the write ends of both pipes and the read end of the stdout pipe, each once, and lets the Pipes forget them.
/// Leave these three open. Close the read end of the stdin pipe before: as long as this process holds it, a child that
/// ends without reading blocks the caller for good when the input exceeds 64 KiB.
///
/// SIGPIPE is blocked for the calling thread while it writes.
///
/// @throws std::runtime_error "Failed to open pipe to stdin for write", "Failed to open pipe to stdout for read", or
///         the reason why waitpid(2) or kill(2) failed. The child is then neither killed nor reaped.
/// @throws std::ios_base::failure when the output cannot be read
HALDEN_CPPUTILS_EXPORT ExecutionResult getAppOutput(Pipe& stdoutPipe, Pipe& stdinPipe, pid_t child,
                                                    std::istream const& input, std::chrono::milliseconds timeout);

}
