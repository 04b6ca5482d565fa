// Runs a program with this one's standard input, and tells how it has ended.
//
//     echo 3 1 2 | run_program --timeout 500 --env LC_ALL=C /usr/bin/wc -w

#include "../support/Program.h"

#include <utils/Execute.h>

#include <unistd.h>

#include <chrono>
#include <exception>
#include <iostream>
#include <string>
#include <vector>

using Halden::Tavro::Utils::Environment;
using Halden::Tavro::Utils::execute;
using Halden::Tavro::Utils::ExecutionResult;

namespace
{

struct Options
{
    std::chrono::milliseconds timeout{};
    Environment environment;
    std::string program;
    std::vector<std::string> arguments;
};

/// @throws CLI::ParseError for what cannot be understood
Options optionsFrom(CLI::App const& app, std::chrono::milliseconds timeout, std::vector<std::string> const& variables)
{
    Options options;
    options.timeout = timeout;
    for (auto const& variable : variables)
    {
        auto const separator = variable.find('=');
        if (separator == 0 || separator == std::string::npos)
        {
            throw CLI::ValidationError("--env", "'" + variable + "' is not NAME=VALUE");
        }
        options.environment.emplace_back(variable.substr(0, separator), variable.substr(separator + 1));
    }
    options.arguments = app.remaining();
    if (options.arguments.empty())
    {
        throw CLI::RequiredError("PROGRAM");
    }
    options.program = options.arguments.front();
    if (options.program.rfind('-', 0) == 0)
    {
        throw CLI::ValidationError(options.program, "no such option");
    }
    options.arguments.erase(options.arguments.begin());
    return options;
}

std::string verdictOf(ExecutionResult const& result)
{
    if (result.exitCode)
    {
        return "exit code " + std::to_string(*result.exitCode);
    }
    if (result.termSignal)
    {
        return "signal " + std::to_string(*result.termSignal);
    }
    return "not known how it ended";
}

int run(Options const& options)
{
    pid_t const self = getpid();
    try
    {
        auto const result = execute(options.program, options.arguments, options.environment, std::cin, options.timeout);
        std::cout << result.output << std::flush;
        std::cerr << verdictOf(result) << '\n';
        return 0;
    }
    catch (std::exception const&)
    {
        if (getpid() != self)
        {
            _exit(1); // the child, which could not attach its pipes
        }
        throw;
    }
}

}

int main(int argc, char** argv) // NOLINT(bugprone-exception-escape): may end the program
{
    std::ios::sync_with_stdio(false); // the standard input is copied whole
    CLI::App app("Reads its standard input to the end, runs a program with it, and tells how that has ended:\n"
                 "  run_program [--timeout MS] [--env NAME=VALUE]... PROGRAM ARG...",
                 "run_program");
    long long timeout = 10'000;
    std::vector<std::string> variables;
    app.add_option("--timeout", timeout, "Kill the program when it takes longer")->option_text("MS (10000)");
    app.add_option("--env", variables, "Add to the environment, or change it")
        ->option_text("NAME=VALUE")
        ->allow_extra_args(false);
    app.prefix_command(); // what follows belongs to the program
    return runProgram(app, argc, argv,
                      [&] { return run(optionsFrom(app, std::chrono::milliseconds(timeout), variables)); });
}
