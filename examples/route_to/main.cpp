// Tells from which of the device's addresses a host is reached, and on which interface that address is.
//
//     route_to time.example.com

#include <log/Logger.h>
#include <utils/IpAddress.h>
#include <utils/Route.h>

#include <CLI/CLI.hpp>

#include <exception>
#include <iostream>
#include <string>

using namespace Halden::Tavro;

int main(int argc, char** argv) // NOLINT(bugprone-exception-escape): may end the program
{
    std::string host;
    CLI::App app("Tells from which local address a host is reached: status 0 when there is a route, else 1.");
    app.add_option("HOST", host, "Host name or IPv4 address")->required();
    try
    {
        app.parse(argc, argv);
        Log::LoggerProxy::instance().setThreshold(Log::Severity::Critical); // one sentence about a failure will do

        std::string const local = Utils::Ip::getLocalIpForRemote(host, 0);
        std::string const name = Utils::Ip::networkIfcNameForIp(Utils::IpAddress::fromString(local));
        std::cout << host << " is reached from " << local << " on " << name << '\n';
        return 0;
    }
    catch (CLI::CallForHelp const& help)
    {
        return app.exit(help);
    }
    catch (CLI::ParseError const& error)
    {
        std::cerr << "route_to: " << error.what() << '\n';
        return 2;
    }
    catch (std::exception const& error)
    {
        std::cerr << "route_to: " << host << ": " << error.what() << '\n';
        return 1;
    }
}
