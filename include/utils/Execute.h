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

/// How a program ended, and what it wrote to its standard output.
///
/// | Outcome                 | termSignal | exitCode   | output                     |
/// |-------------------------|------------|------------|----------------------------|
/// | it ended                | -          | its status | all                        |
/// | a signal ended it       | the signal | -          | all up to then             |
/// | it took too long        | SIGKILL    | -          | all up to then             |
/// | it could not be started | -          | -1         | none; the log says why     |
/// | its end is not known    | -          | -          | all; see hazards of execute() |
///
/// The status is a signed byte: 128 reads as -128. A program that ends with 255 reads as -1, like one that could not be
/// started. Streams print a std::int8_t as a character, so convert it to int before. A program that ends by itself just
/// as its time runs out has not taken too long.
struct ExecutionResult
{
    std::optional<std::int8_t> termSignal; ///< the signal that ended it
    std::optional<std::int8_t> exitCode;   ///< its status, when it ended by itself
    std::string output;                    ///< the bytes of its standard output, whatever they are
};

/// Names and values. A pair that setenv(3) refuses, such as one with an empty name, is left out.
using Environment = std::vector<std::pair<std::string, std::string>>;

/// Runs a program with the given input, waits for its end, and kills it when that takes too long.
///
///     std::istringstream const input("3\n1\n2\n");
///     auto const result = execute("/usr/bin/sort", {"-n"}, {{"LC_ALL", "C"}}, input, 2s);
///     if (result.exitCode == 0)
///     {
///         use(result.output);
///     }
///
/// | Limit                         | Exact build                          | Hardened build             |
/// |-------------------------------|--------------------------------------|----------------------------|
/// | path of the program           | PATH is not searched                 | likewise                   |
/// | exitCode -1                   | not started, or status 255           | likewise                   |
/// | time-out covers               | only the wait for the program's end  | the whole call             |
/// | time-out is counted           | in steps of 10 ms; the kill comes one step late: 1000 ms is 1010 ms | likewise |
/// | end of the program is noticed | within 10 ms                         | at once                    |
/// | output                        | 64 KiB, what a pipe holds            | 64 MiB                     |
/// | input that it does not read   | 64 KiB                               | any                        |
/// | process that it leaves behind | waited for                           | waited for within the time-out |
/// | cost of a start               | 0.4 ms; 30 ms in a process of 1 GiB  | 0.7 ms, posix_spawn(3)     |
///
/// A path without a slash is one in the current directory. A program with more output than the limit stops there until
/// it is killed. One that ends, or closes its standard input, lets the rest of the input be dropped. The time for
/// reading `input` itself counts, but nothing can cut it short.
///
/// The program gets this process's standard error, directory, signal mask and ignored signals, and its descriptors that
/// are not close-on-exec, but not the pipes of other execute() calls.
///
/// This process must have descriptors 0, 1 and 2 open. It must neither ignore SIGCHLD nor reap children that it does
/// not know: a child that is reaped elsewhere is an exception here, "No child processes".
///
/// Threads: may be called from several at once. No thread may change the environment during a call. Between fork(2) and
/// execv(3) the child allocates and locks only in setenv(3) and in log calls that are enabled. The hardened build forks
/// only where the child has something to log, that is when Trace is enabled or the program cannot be started. Otherwise
/// no handler of pthread_atfork(3) runs.
///
/// @param path        the program, also its argument 0
/// @param arguments   the arguments from 1 on
/// @param environment added to this process's own, in this order; replaces variables of the same name
/// @param input       read from its present position to its end, any bytes; a read that fails counts as the end
/// @param timeout     zero or less gives the program 10 ms
/// @throws std::runtime_error "Failed to create pipe", "Failed to fork to execute the other process", or as
///         getAppOutput()
///
/// Hazards of the exact build:
/// - A program that keeps running without reading its input blocks the call once the input exceeds 64 KiB. If it has
///   also written more than 64 KiB, the call never returns. Keep the input small, or have the program write to a file.
/// - A process that the program leaves behind with its standard output blocks the call until that process ends too.
/// - A signal handler without SA_RESTART may end the last wait. The end is then not known: nobody has reaped the child,
///   and if the time was up, it may not even have been killed.
/// - An exception after the start leaves the child running, and nobody reaps it.
/// - A child that cannot attach its pipes throws. The exception leaves execute() in the child as well, so that the
///   caller's code goes on in two processes. Catch it where only the parent may go on:
///
///       pid_t const self = getpid();
///       try
///       {
///           result = execute(path, arguments, {}, input, 2s);
///       }
///       catch (std::exception const&)
///       {
///           if (getpid() != self)
///           {
///               _exit(255); // the child
///           }
///           throw;
///       }
///
/// - A log call that waits because standard error is a full pipe holds up every fork(2) of the process, as the logging
///   library keeps its locks from being copied. This call then waits too, before its time-out begins. In the hardened
///   build this happens only where it forks.
HALDEN_CPPUTILS_EXPORT ExecutionResult execute(std::string const& path, std::vector<std::string> const& arguments,
                                               Environment const& environment, std::istream const& input,
                                               std::chrono::milliseconds timeout);

/// What execute() does in the child: turns this process into the program, or ends it with status 255.
///
/// Only for a process that has just been forked. Closes both ends of each Pipe.
///
/// @param stdinPipe   its read end becomes the standard input
/// @param stdoutPipe  its write end becomes the standard output
/// @param stderrPipe  its write end becomes the standard error; null leaves that as it is
/// @param path        as for execv(3)
/// @param arguments   as for execv(3), with a null pointer at the end
/// @param environment as for execute()
/// @throws std::runtime_error in the exact build, see the hazards
///
/// Hazards of the exact build:
/// - What Pipe::useAsStdin() and its siblings throw reaches the code that forked. Catch it there, and end the child
///   with _exit(2). The hardened build ends it with status 255, without a log line.
[[noreturn]] HALDEN_CPPUTILS_EXPORT void executeApp(Pipe& stdinPipe, Pipe& stdoutPipe, Pipe* stderrPipe,
                                                    char const* path, char* const* arguments,
                                                    Environment const& environment);

/// What execute() does in the parent: writes the input, waits, kills where needed, and reads the output.
///
/// Closes the write ends of both pipes and the read end of the stdout pipe, each once, and lets the Pipes forget them.
/// Leave these three open. Close the read end of the stdin pipe before the call: as long as this process holds it, the
/// call waits for input that nobody reads.
///
/// SIGPIPE is blocked for the calling thread while it writes.
///
/// In the hardened build an exception leaves no child behind, except one that this process may not kill: that one runs
/// to its end and stays as a zombie.
///
/// @param stdoutPipe its write end is the child's standard output
/// @param stdinPipe  its read end is the child's standard input
/// @param child      its process id
/// @param input      as for execute()
/// @param timeout    as for execute()
/// @throws std::runtime_error "Failed to open pipe to stdin for write", "Failed to open pipe to stdout for read", or
///         the reason why waitpid(2) or kill(2) failed
/// @throws std::ios_base::failure when the output cannot be read
///
/// Hazards of the exact build:
/// - Those of execute(). Whatever is thrown, the child is neither killed nor reaped.
HALDEN_CPPUTILS_EXPORT ExecutionResult getAppOutput(Pipe& stdoutPipe, Pipe& stdinPipe, pid_t child,
                                                    std::istream const& input, std::chrono::milliseconds timeout);

}
