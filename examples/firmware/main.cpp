// Tells which firmware the device runs, and what its updates must be made for.

#include "../support/Program.h"

#include <log/Logger.h>
#include <utils/FirmwareVersionTavro.h>

#include <stdlib.h> // NOLINT(modernize-deprecated-headers): setenv is POSIX

#include <iostream>
#include <string>

using namespace Halden::Tavro;

namespace
{

/// Lets the shell find the commands of this directory before any other.
void putFirstInPath(std::string const& directory)
{
    char const* const path = getenv("PATH");
    setenv("PATH", (directory + ":" + (path == nullptr ? "/usr/bin:/bin" : path)).c_str(), 1);
}

std::string orUnknown(std::string const& value)
{
    return value.empty() ? "unknown" : value;
}

/// @return whether the device has told both
int showFirmware(std::string const& commands, bool verbose)
{
    if (!commands.empty())
    {
        putFirstInPath(commands);
    }
    if (verbose)
    {
        Log::LoggerProxy::instance().setThreshold(Log::Severity::Debug);
    }
    Utils::FirmwareVersionTavro firmware;
    bool const complete = firmware.init(); // what fails is in the log
    std::cout << "version: " << orUnknown(firmware.version()) << '\n'
              << "compatible id: " << orUnknown(firmware.compatibleId()) << '\n';
    return complete ? 0 : 1;
}

}

int main(int argc, char** argv) // NOLINT(bugprone-exception-escape): may end the program
{
    Program program("Tells the firmware's version and compatible id: status 0 when the device knows both, else 1.");
    std::string commands;
    bool verbose = false;
    program.option("--device-commands", commands, "Looks for the device's commands in DIR first")
        .placeholder("DIR")
        .folder();
    program.flag("--verbose", verbose, "Shows on standard error what is asked and answered");
    return program.run(argc, argv, [&] { return showFirmware(commands, verbose); });
}
