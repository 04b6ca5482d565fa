// Runs a program with this one's standard input, and ends as it has ended. What is done here by hand, execute() does
// for who needs neither the child's process id nor the reason why a program cannot be started.
//
//     echo 3 1 2 | run_program --timeout 500 --env LC_ALL=C wc -w

#include "../support/Program.h"
#include "Signals.h"

#include <log/Logger.h>
#include <utils/Execute.h>

#include <signal.h> // NOLINT(modernize-deprecated-headers): SIGKILL is POSIX
#include <stdlib.h> // NOLINT(modernize-deprecated-headers): as the others
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <exception>
#include <filesystem>
#include <iostream>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

using namespace Halden::Tavro;
using Utils::Environment;
using Utils::ExecutionResult;
using Utils::Pipe;

namespace
{

struct Options
{
    std::chrono::milliseconds timeout{};
    Environment environment;
    std::string program;
    std::vector<std::string> arguments;
};

/// @throws UsageError for what cannot be understood
Options optionsFrom(Program const& self, int timeout, std::vector<std::string> const& variables)
{
    Options options;
    options.timeout = std::chrono::milliseconds(timeout);
    for (auto const& variable : variables)
    {
        auto const separator = variable.find('=');
        if (separator == 0 || separator == std::string::npos)
        {
            throw UsageError("--env: '" + variable + "' is not NAME=VALUE");
        }
        options.environment.emplace_back(variable.substr(0, separator), variable.substr(separator + 1));
    }
    options.arguments = self.command();
    options.program = options.arguments.front();
    options.arguments.erase(options.arguments.begin());
    return options;
}

/// Where a shell would find the program; else one that nobody may execute, or what is not there, for the reason's sake.
std::string pathOf(std::string const& program)
{
    char const* const path = getenv("PATH");
    std::istringstream folders(path == nullptr ? "/usr/bin:/bin" : path);
    std::string folder;
    std::string found = program;
    while (program.find('/') == std::string::npos && std::getline(folders, folder, ':'))
    {
        std::string candidate = (folder.empty() ? "." : folder) + "/" + program;
        std::error_code ignored;
        bool const exists = std::filesystem::is_regular_file(candidate, ignored);
        if (exists && access(candidate.c_str(), X_OK) == 0)
        {
            return candidate;
        }
        found = exists ? candidate : found;
    }
    return found;
}

/// Ends the child, which is not to be the program, with a status as env(1) has it.
[[noreturn]] void giveUp(std::string const& program, std::string_view reason)
{
    std::cerr << programName() << ": " << program << ": " << reason << '\n';
    _exit(reason == std::strerror(ENOENT) ? 127 : 126);
}

/// The log in the child, where one message matters: that the program could not be started.
class StartLog : public Log::LoggerImplIfc
{
public:
    explicit StartLog(std::string program)
        : program(std::move(program))
    {
    }

    void write(Log::Record const& record) override
    {
        constexpr std::string_view failure = "execve() failed with ";
        if (record.text.substr(0, failure.size()) == failure)
        {
            giveUp(program, record.text.substr(failure.size()));
        }
    }

private:
    std::string const program;
};

[[noreturn]] void becomeProgram(Options& options, Pipe& stdinPipe, Pipe& stdoutPipe)
{
    std::vector<char*> pointers{options.program.data()};
    for (auto& argument : options.arguments)
    {
        pointers.push_back(argument.data());
    }
    pointers.push_back(nullptr);
    auto const path = pathOf(options.program);
    Log::LoggerProxy::instance().setSink(std::make_shared<StartLog>(options.program));
    try
    {
        Utils::executeApp(stdinPipe, stdoutPipe, nullptr, path.c_str(), pointers.data(), options.environment);
    }
    catch (std::exception const& error)
    {
        giveUp(options.program, error.what());
    }
}

/// As env(1) and timeout(1) end.
int statusOf(ExecutionResult const& result, bool timeIsUp)
{
    if (result.termSignal == SIGKILL && timeIsUp)
    {
        return 124;
    }
    if (result.termSignal)
    {
        return 128 + *result.termSignal;
    }
    return static_cast<std::uint8_t>(result.exitCode.value_or(-1));
}

int run(Options options)
{
    auto const deadline = std::chrono::steady_clock::now() + options.timeout;
    Pipe stdoutPipe;
    Pipe stdinPipe;
    Signals const signals;
    pid_t const child = fork();
    if (child < 0)
    {
        throw std::runtime_error(std::string("no process for the program: ") + std::strerror(errno));
    }
    if (child == 0)
    {
        signals.leave();
        becomeProgram(options, stdinPipe, stdoutPipe);
    }
    stdinPipe.close(Pipe::End::Read);
    signals.follow(child, options.timeout);
    auto const result = Utils::getAppOutput(stdoutPipe, stdinPipe, child, std::cin, options.timeout);
    bool const timeIsUp = std::chrono::steady_clock::now() >= deadline;
    std::cout << result.output;
    return statusOf(result, timeIsUp);
}

}

int main(int argc, char** argv) // NOLINT(bugprone-exception-escape): may end the program
{
    std::ios::sync_with_stdio(false); // the standard input is copied whole
    Program self(
        "Runs a program with this one's standard input, and ends with its status; with 124 when the time was up, "
        "126 when it cannot be started, 127 when there is none, 128 and a signal's number when that has ended "
        "it. A SIGTERM goes on to the program.");
    int timeout = 10'000;
    std::vector<std::string> variables;
    self.option("--timeout", timeout, "Kill the program when it takes longer")
        .placeholder("MS (10000)")
        .range(1, 2'000'000'000);
    self.option("--env", variables, "Add to the environment, or change it").placeholder("NAME=VALUE");
    self.takesCommand("[--timeout MS] [--env NAME=VALUE]... PROGRAM ARG...");
    return self.run(argc, argv, [&] { return run(optionsFrom(self, timeout, variables)); });
}
