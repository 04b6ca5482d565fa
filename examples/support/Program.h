#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace CLI
{
class App;
class Option;
}

/// As it was called: an example that is installed has another name there.
std::string programName();

/// What cannot be understood in a command line.
class UsageError : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

/// What may follow the name of an option, and how the help shows it.
class Option
{
public:
    explicit Option(CLI::Option& option);

    Option required() const;
    Option folder() const; ///< one that exists
    Option range(int least, int most) const;
    Option oneOf(std::vector<std::string> const& words) const;
    Option placeholder(std::string const& text) const; ///< in the place of the value's type
    Option showDefault() const;                        ///< the variable's value by now

private:
    CLI::Option& option;
};

/// The command line of an example, and what all of them do before and after their work. The parser is a header of many
/// templates, so it is compiled once, here, and not in each of them.
class Program
{
public:
    /// @param purpose the help's first line
    explicit Program(std::string const& purpose);

    Program(Program const&) = delete;
    Program& operator=(Program const&) = delete;

    ~Program();

    /// The variable is set when the name is there: "--name".
    void flag(std::string const& name, bool& variable, std::string const& help);

    /// The variable gets the value that follows the name: "--name VALUE". A name without dashes is that of an argument,
    /// by its place. What the command line does not have leaves the variable alone.
    Option option(std::string const& name, int& variable, std::string const& help);
    Option option(std::string const& name, unsigned& variable, std::string const& help);
    Option option(std::string const& name, std::string& variable, std::string const& help);
    Option option(std::string const& name, std::optional<std::string>& variable, std::string const& help);
    Option option(std::string const& name, std::vector<std::string>& variable, std::string const& help); ///< repeated

    /// From the first word on that is no option, all belongs to another program.
    ///
    /// @param usage how the help shows what may follow the program's name
    void takesCommand(std::string const& usage);

    /// The words of the other program, before which a "--" may stand.
    ///
    /// @throws UsageError when there are none, or the first is an option that is not known
    std::vector<std::string> command() const;

    /// Parses the command line, then does the work, whose result is the exit status; --help and --version are answered
    /// here.
    ///
    /// What cannot be understood ends in status 2; an exception of the work, or a standard output that cannot be
    /// written, in status 1; either with one line on standard error that begins with the program's name.
    int run(int argc, char const* const* argv, std::function<int()> const& work);

private:
    std::unique_ptr<CLI::App> const parser;
};
