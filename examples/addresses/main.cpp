// Prints this machine's addresses with their interfaces, and on request follows them as they come and go.
//
//     addresses --watch

#include "../support/Program.h"
#include "../support/StopSignals.h"

#include <log/Logger.h>
#include <utils/LocalIps.h>
#include <utils/Route.h>

#include <unistd.h>

#include <exception>
#include <iostream>
#include <string>

using namespace Halden::Tavro;

namespace
{

std::string interfaceOf(Utils::IpAddress const& ip)
{
    try
    {
        return Utils::Ip::networkIfcNameForIp(ip);
    }
    catch (std::exception const&)
    {
        return "(no interface)"; // it may be gone already
    }
}

/// In one piece: the constructing thread and the receiver thread may print at the same time.
void print(std::string const& line)
{
    std::cout << line + "\n" << std::flush;
}

int list()
{
    Utils::LocalIps localIps({}, {}, {});
    for (auto const& ip : localIps.addresses())
    {
        print(ip.string() + " " + interfaceOf(ip));
    }
    return 0;
}

/// Ends the watch where nobody can see any more what it shows.
void show(std::string const& line)
{
    print(line);
    if (!std::cout)
    {
        kill(getpid(), SIGTERM);
    }
}

int watch()
{
    StopSignals const signals;
    Utils::LocalIps const localIps(
        [](auto const& ip) { show("+ " + ip.string() + " " + interfaceOf(ip)); },
        [](auto const& ip) { show("- " + ip.string()); },
        [] { show("! events were lost; with the hardened library, what has changed follows"); });
    signals.wait();
    return 0;
}

}

int main(int argc, char** argv) // NOLINT(bugprone-exception-escape): may end the program
{
    Program program("Prints the addresses of this machine with their interfaces.");
    bool follow = false;
    program.flag("--watch", follow, "Then prints what is added (+) and lost (-), until Ctrl-C");
    Log::LoggerProxy::instance().setThreshold(Log::Severity::Critical); // what matters is shown
    return program.run(argc, argv, [&] { return follow ? watch() : list(); });
}
