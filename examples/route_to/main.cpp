// Tells from which of the device's addresses a host is reached, and on which interface that address is.
//
//     route_to time.example.com

#include "../support/Program.h"

#include <log/Logger.h>
#include <utils/IpAddress.h>
#include <utils/Route.h>

#include <exception>
#include <iostream>
#include <stdexcept>
#include <string>

using namespace Halden::Tavro;

namespace
{

int tellRoute(std::string const& host)
{
    Log::LoggerProxy::instance().setThreshold(Log::Severity::Critical); // one sentence about a failure will do
    try
    {
        std::string const local = Utils::Ip::getLocalIpForRemote(host, 0);
        std::string const name = Utils::Ip::networkIfcNameForIp(Utils::IpAddress::fromString(local));
        std::cout << host << " is reached from " << local << " on " << name << '\n';
        return 0;
    }
    catch (std::exception const& error)
    {
        throw std::runtime_error(host + ": " + error.what());
    }
}

}

int main(int argc, char** argv) // NOLINT(bugprone-exception-escape): may end the program
{
    std::string host;
    Program program("Tells from which local address a host is reached: status 0 when there is a route, else 1.");
    program.option("HOST", host, "Host name or IPv4 address").required().placeholder(" ");
    return program.run(argc, argv, [&] { return tellRoute(host); });
}
