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
#include <memory>
#include <string>

using namespace Halden::Tavro;

namespace
{

/// Ends the program when the monitor cannot get past an event: then not even its destructor returns, see LocalIps.h.
class EndOfRetry : public Log::LoggerImplIfc
{
public:
    void write(Log::Record const& record) override
    {
        if (record.text.rfind("processAllNetlinkMessages: ignoring exception ", 0) == 0)
        {
            std::cerr << "addresses: an IPv6 address has changed that cannot be followed; start again\n";
            _exit(3);
        }
    }
};

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

int watch()
{
    StopSignals const signals;
    Utils::LocalIps const localIps([](auto const& ip) { print("+ " + ip.string() + " " + interfaceOf(ip)); },
                                   [](auto const& ip) { print("- " + ip.string()); },
                                   [] { print("! events were lost: what follows may be incomplete; start again"); });
    signals.wait();
    return 0;
}

}

int main(int argc, char** argv) // NOLINT(bugprone-exception-escape): may end the program
{
    CLI::App app("Prints the addresses of this machine with their interfaces.", "addresses");
    bool follow = false;
    app.add_flag("--watch", follow, "Then prints what is added (+) and lost (-), until Ctrl-C");
    Log::LoggerProxy::instance().setSink(std::make_shared<EndOfRetry>());
    Log::LoggerProxy::instance().setThreshold(Log::Severity::Error);
    return runProgram(app, argc, argv, [&] { return follow ? watch() : list(); });
}
