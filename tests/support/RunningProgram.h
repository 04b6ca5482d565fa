#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace Halden::Tavro::TestSupport
{

/// A program that the test talks to while it runs, in the calling thread's network namespace. Both its outputs come as
/// one.
class RunningProgram
{
public:
    RunningProgram(std::string path, std::vector<std::string> arguments);

    /// Kills it, unless status() has seen its end.
    ~RunningProgram();

    RunningProgram(RunningProgram const&) = delete;
    RunningProgram& operator=(RunningProgram const&) = delete;

    /// The next line, or what has come of it when the output ends or 10 s have passed.
    std::string line();

    /// @return whether a line with that text comes, within 20 s
    bool showsLineWith(std::string const& text);

    /// All from the start to the end, for which it waits 10 s.
    std::string const& wholeOutput();

    void send(int signalNumber) const;

    /// @return the exit status, once the program has ended; -1 when a signal has ended it, or it has not within 10 s
    int status();

private:
    pid_t child;
    int readEnd;
    std::string output; // what was read of it
};

}
