#pragma once

#include <CLI/CLI.hpp>

#include <fcntl.h>
#include <unistd.h>

#include <exception>
#include <iostream>
#include <stdexcept>

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

/// Parses the command line, then does the work, whose result is the exit status.
///
/// What cannot be understood ends in status 2; an exception of the work, or a standard output that cannot be written,
/// in status 1; either with one line on standard error that begins with the name of the application.
template <typename Work>
int runProgram(CLI::App& app, int argc, char** argv, Work const& work)
{
    occupyStandardDescriptors();
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
        if (!std::cout.flush())
        {
            throw std::runtime_error("the standard output cannot be written");
        }
        return status;
    }
    catch (CLI::ParseError const& error)
    {
        std::cerr << app.get_name() << ": " << error.what() << '\n';
        return 2;
    }
    catch (std::exception const& error)
    {
        std::cerr << app.get_name() << ": " << error.what() << '\n';
        return 1;
    }
}
