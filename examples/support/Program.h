#pragma once

#include <utils/Version.h>

#include <CLI/CLI.hpp>

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <exception>
#include <iostream>
#include <stdexcept>
#include <string>

/// As it was called: an example that is installed has another name there.
inline std::string programName()
{
    return program_invocation_short_name;
}

/// Gives the standard streams that were closed at the start their numbers back, so that no file of the program takes
/// them: nothing can be read from them or written to them.
inline void occupyStandardDescriptors()
{
    int descriptor = 0;
    while (descriptor >= 0 && descriptor <= STDERR_FILENO)
    {
        descriptor = open("/dev/null", O_RDONLY | O_CLOEXEC);
    }
    close(descriptor);
}

/// Parses the command line, then does the work, whose result is the exit status; --help and --version are answered
/// here.
///
/// What cannot be understood ends in status 2; an exception of the work, or a standard output that cannot be written,
/// in status 1; either with one line on standard error that begins with the program's name.
template <typename Work>
int runProgram(CLI::App& app, int argc, char** argv, Work const& work)
{
    occupyStandardDescriptors();
    app.name(programName());
    app.set_help_flag("-h,--help", "Print this and exit");
    app.set_version_flag(
        "--version", [] { return programName() + " (haldencpputils) " + Halden::Tavro::Utils::loadedVersion(); },
        "Print the library's version and exit");
    try
    {
        int status = 0;
        try
        {
            app.parse(argc, argv);
            status = work();
        }
        catch (CLI::CallForHelp const&)
        {
            std::cout << app.help();
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
        std::cerr << programName() << ": " << error.what() << '\n';
        return 2;
    }
    catch (std::exception const& error)
    {
        std::cerr << programName() << ": " << error.what() << '\n';
        return 1;
    }
}
