#pragma once

#include "support/ChildProcess.h"

#include <chrono>
#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace Halden::Tavro::TestSupport
{

/// What a program meets beside its arguments.
struct ExampleOptions
{
    std::string input{};                                            ///< what its standard input holds
    std::vector<std::pair<std::string, std::string>> environment{}; ///< added to this process's own
    std::function<bool()> prepare{};                                ///< in its process, before it; false: 126
    std::chrono::milliseconds limit{std::chrono::seconds(60)};      ///< it is killed after that
};

/// Runs a program to its end as a user does. Both its outputs come back as one text.
ChildResult runExample(std::string const& program, std::vector<std::string> const& arguments,
                       ExampleOptions const& options = {});

/// A command line that a program does not understand, and what of it its answer names.
struct BadUse
{
    std::vector<std::string> arguments;
    std::string named;
};

/// Expects that the program answers each with one line that begins with its name, and with status 2.
void expectRefusal(std::string const& program, std::vector<BadUse> const& uses);

/// Expects that the program answers --version with its name and the version of the library that it runs with.
void expectVersion(std::string const& program);

/// Expects that the program ends with a sentence and status 1 where its standard output takes nothing.
void expectComplaintAboutFullOutput(std::string const& program, std::vector<std::string> const& arguments);

}
