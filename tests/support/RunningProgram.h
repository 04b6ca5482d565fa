#pragma once

#include "support/ChildProcess.h"

#include <string>
#include <vector>

namespace Halden::Tavro::TestSupport
{

/// A program that the test talks to while it runs, in the calling thread's network namespace. Its standard input is
/// empty, both its outputs come as one.
class RunningProgram
{
public:
    RunningProgram(std::string const& path, std::vector<std::string> const& arguments);

    /// Kills it, unless status() has seen its end.
    ~RunningProgram();

    RunningProgram(RunningProgram const&) = delete;
    RunningProgram& operator=(RunningProgram const&) = delete;

    /// The next line, or what has come of it when the output ends or 30 s have passed.
    std::string line();

    /// @return whether a line with that text comes, within 30 s
    bool showsLineWith(std::string const& text);

    /// All from the start to the end, for which it waits 30 s.
    std::string const& wholeOutput();

    void send(int signalNumber) const;

    /// @return the exit status, once the program has ended; -1 when a signal has ended it, or it has not within
    /// 30 s
    int status();

private:
    Child const child;
    bool ended{false};  // and reaped
    std::string output; // what was read of it
};

}
