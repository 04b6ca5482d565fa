#include "Program.h"

#include <utils/Version.h>

#include <CLI/CLI.hpp>

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <exception>
#include <iostream>
#include <utility>

namespace
{

/// Gives the standard streams that were closed at the start their numbers back, so that no file of the program takes
/// them: nothing can be read from them or written to them.
void occupyStandardDescriptors()
{
    int descriptor = 0;
    while (descriptor >= 0 && descriptor <= STDERR_FILENO)
    {
        descriptor = open("/dev/null", O_RDONLY | O_CLOEXEC);
    }
    close(descriptor);
}

/// Shows the other program among the arguments, of which the parser does not know.
class CommandHelp : public CLI::Formatter
{
public:
    explicit CommandHelp(std::string usage)
        : usage(std::move(usage))
    {
    }

private:
    std::string make_usage(CLI::App const* /*app*/, std::string name) const override
    {
        return "Usage: " + name + " " + usage + "\n";
    }

    std::string const usage;
};

int complain(std::exception const& error, int status)
{
    std::cerr << programName() << ": " << error.what() << '\n';
    return status;
}

}

std::string programName()
{
    return program_invocation_short_name;
}

Option::Option(CLI::Option& option)
    : option(option)
{
}

Option Option::required() const
{
    option.required();
    return *this;
}

Option Option::folder() const
{
    option.check(CLI::ExistingDirectory);
    return *this;
}

Option Option::range(int least, int most) const
{
    option.check(CLI::Range(least, most));
    return *this;
}

Option Option::oneOf(std::vector<std::string> const& words) const
{
    option.check(CLI::IsMember(words));
    return *this;
}

Option Option::placeholder(std::string const& text) const
{
    option.option_text(text);
    return *this;
}

Option Option::showDefault() const
{
    option.capture_default_str();
    return *this;
}

Program::Program(std::string const& purpose)
    : parser(std::make_unique<CLI::App>(purpose, programName()))
{
}

Program::~Program() = default;

void Program::flag(std::string const& name, bool& variable, std::string const& help)
{
    parser->add_flag(name, variable, help);
}

Option Program::option(std::string const& name, int& variable, std::string const& help)
{
    return Option(*parser->add_option(name, variable, help));
}

Option Program::option(std::string const& name, unsigned& variable, std::string const& help)
{
    return Option(*parser->add_option(name, variable, help));
}

Option Program::option(std::string const& name, std::string& variable, std::string const& help)
{
    return Option(*parser->add_option(name, variable, help));
}

Option Program::option(std::string const& name, std::optional<std::string>& variable, std::string const& help)
{
    return Option(*parser->add_option(name, variable, help));
}

Option Program::option(std::string const& name, std::vector<std::string>& variable, std::string const& help)
{
    return Option(*parser->add_option(name, variable, help)->allow_extra_args(false));
}

void Program::takesCommand(std::string const& usage)
{
    parser->prefix_command();
    parser->formatter(std::make_shared<CommandHelp>(usage));
}

std::vector<std::string> Program::command() const
{
    auto words = parser->remaining();
    bool const parted = !words.empty() && words.front() == "--";
    if (parted)
    {
        words.erase(words.begin());
    }
    if (words.empty())
    {
        throw UsageError("PROGRAM is required");
    }
    if (!parted && words.front().rfind('-', 0) == 0)
    {
        throw UsageError(words.front() + ": no such option");
    }
    return words;
}

int Program::run(int argc, char const* const* argv, std::function<int()> const& work)
{
    occupyStandardDescriptors();
    parser->set_help_flag("-h,--help", "Print this and exit");
    parser->set_version_flag(
        "--version", [] { return programName() + " (haldencpputils) " + Halden::Tavro::Utils::loadedVersion(); },
        "Print the library's version and exit");
    try
    {
        int status = 0;
        try
        {
            parser->parse(argc, argv);
            status = work();
        }
        catch (CLI::CallForHelp const&)
        {
            std::cout << parser->help();
        }
        catch (CLI::CallForVersion const& version)
        {
            std::cout << version.what() << '\n';
        }
        if (!std::cout.flush())
        {
            throw std::runtime_error("the standard output cannot be written");
        }
        return status;
    }
    catch (CLI::ParseError const& error)
    {
        return complain(error, 2);
    }
    catch (UsageError const& error)
    {
        return complain(error, 2);
    }
    catch (std::exception const& error)
    {
        return complain(error, 1);
    }
}
