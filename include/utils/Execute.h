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

/// How a program has ended, and what it has written to its standard output.
///
///     outcome                      termSignal   exitCode     output
///     it has ended                 -            its status   all
///     a signal has ended it        the signal   -            all up to then
///     it took too long             SIGKILL      -            all up to then
///     it could not be started      -            -1           none; the log says why
///     its end is not known         -            -            all; see the hazards of execute()
///
/// A status is a signed byte: 128 reads as -128, and 255 as -1, like a program that could not be started. What ends by
/// itself in the moment when its time is up has not taken too long.
struct ExecutionResult
{
    std::optional<std::int8_t> termSignal;
    std::optional<std::int8_t> exitCode;
    std::string output;
};

/// Names and values. A pair that setenv(3) refuses, such as one with an empty name, is left out.
using Environment = std::vector<std::pair<std::string, std::string>>;

/// Runs a program with the given input, waits for its end, and kills it when that takes too long.
///
///     std::istringstream const input("3\n1\n2\n");
///     auto const result = execute("/usr/bin/sort", {"-n"}, {{"LC_ALL", "C"}}, input, 2s);
///     if (result.exitCode == 0)
///
/// The program gets the standard error, directory, signal mask and ignored signals of this process, and all descriptors
/// that are not close-on-exec, but not those of other calls. It is not looked for in PATH: a path without a slash is
/// one in the current directory.
///
/// Descriptors 0, 1 and 2 must be open in this process. It must not ignore SIGCHLD, nor reap children that it does not
/// know: a child that is reaped elsewhere is an exception here, "No child processes".
///
///     limit                       exact build                   hardened build
///     time-out                    of the wait after the input   of all
///     its granularity             10 ms, and 10 ms more         10 ms, and 10 ms more
///     end of a program            seen within 10 ms             seen at once
///     output                      64 KiB, what a pipe holds     64 MiB
///     input that is not read      64 KiB                        any
///     process left behind with
///     the output                  waited for                    waited for until the time is up
///     cost of a start             grows with this process:      that of posix_spawn(3), 0.7 ms
///                                 0.4 ms, with 1 GiB 30 ms
///
/// A program with more output stops at the limit until it is killed. The time that input itself takes to be read
/// counts, but nothing can cut it short. A program that ends or closes its standard input lets the rest of the input be
/// dropped.
///
/// Threads: may be called from several at once. No thread may change the environment during a call. In a forked child,
/// up to execv(3), nothing is allocated or locked but by setenv(3) and by log calls that are enabled. The hardened
/// build forks only for a child that has something to log: where Trace is enabled, and for a program that cannot be
/// started. Otherwise no handlers of pthread_atfork(3) run.
///
/// Hazards of the exact build:
/// - A program that lives without reading blocks the call for as long, once its input exceeds 64 KiB. If it has also
///   written more than 64 KiB, the call never returns. Limit the input, or let the program write to a file.
/// - A process that the program leaves behind with its standard output blocks the call until that has ended too.
/// - A signal handler without SA_RESTART may end the last wait: the end is not known then, nobody has reaped the child,
///   and when the time was up, it may not even have been killed.
/// - An exception after the start leaves the child running and not reaped.
/// - A child that cannot attach its pipes throws there: the exception leaves execute() in the child, and the caller's
///   code goes on in two processes. Whoever catches exceptions compares getpid(2), and ends the child with _exit(2).
/// - A log call that waits because standard error is a full pipe holds up every fork(2) of the process, on any thread,
///   as the logging library keeps its locks from being copied. This call waits as well, and its time-out has not begun.
///   The hardened build does so only where it forks.
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
/// Hazards of the exact build:
/// What Pipe::useAsStdin() and its likes throw goes on in the child, up into the code that forked it. Catch it there
/// and end the child with _exit(2). The hardened build ends it with status 255, without a log line.
///
/// @param stdinPipe  its read end becomes the standard input
/// @param stdoutPipe its write end becomes the standard output
/// @param stderrPipe its write end becomes the standard error; null leaves that as it is
/// @param path       as for execv(3)
/// @param arguments  as for execv(3), with a null pointer at the end
/// @throws std::runtime_error in the exact build, see above
[[noreturn]] HALDEN_CPPUTILS_EXPORT void executeApp(Pipe& stdinPipe, Pipe& stdoutPipe, Pipe* stderrPipe,
                                                    char const* path, char* const* arguments,
                                                    Environment const& environment);

/// What execute() does in the parent: writes the input, waits, kills where needed, and reads the output.
///
/// Closes the write ends of both pipes and the read end of the stdout pipe, each once, and lets the Pipes forget them.
/// Leave these three open. Close the read end of the stdin pipe before: as long as this process holds it, input that
/// nobody reads is waited for.
///
/// SIGPIPE is blocked for the calling thread while it writes.
///
/// In the hardened build an exception leaves no child behind, but for one that this process may not kill: that stays
/// until it ends, and then a zombie.
///
/// Hazards of the exact build:
/// Those of execute(). Whatever is thrown, the child is neither killed nor reaped.
///
/// @throws std::runtime_error "Failed to open pipe to stdin for write", "Failed to open pipe to stdout for read", or
///         the reason why waitpid(2) or kill(2) failed
/// @throws std::ios_base::failure when the output cannot be read
HALDEN_CPPUTILS_EXPORT ExecutionResult getAppOutput(Pipe& stdoutPipe, Pipe& stdinPipe, pid_t child,
                                                    std::istream const& input, std::chrono::milliseconds timeout);

}
