#pragma once

#include <CLI/CLI.hpp>

#include <exception>
#include <iostream>

/// Parses the command line, then does the work, whose result is the exit status.
///
/// What cannot be understood ends in status 2, an exception of the work in status 1, either with one line on standard
/// error that begins with the name of the application.
template <typename Work>
int runProgram(CLI::App& app, int argc, char** argv, Work const& work)
{
    try
    {
        app.parse(argc, argv);
        return work();
    }
    catch (CLI::CallForHelp const& help)
    {
        return app.exit(help);
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
