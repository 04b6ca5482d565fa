// Prints this machine's addresses with their interfaces, and on request follows them as they come and go.
//
//     addresses --watch

#include <log/Logger.h>
#include <utils/LocalIps.h>
#include <utils/Route.h>

#include <CLI/CLI.hpp>

#include <signal.h> // NOLINT(modernize-deprecated-headers): sigwait is POSIX
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

/// Blocked before any thread starts, so that only wait() sees them.
class StopSignals
{
public:
    StopSignals()
    {
        sigemptyset(&signals);
        sigaddset(&signals, SIGINT);
        sigaddset(&signals, SIGTERM);
        pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    }

    void wait() const
    {
        int signalNumber = 0;
        sigwait(&signals, &signalNumber);
    }

private:
    sigset_t signals{};
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

void list()
{
    Utils::LocalIps localIps({}, {}, {});
    for (auto const& ip : localIps.addresses())
    {
        print(ip.string() + " " + interfaceOf(ip));
    }
}

void watch()
{
    StopSignals const signals;
    Utils::LocalIps const localIps([](auto const& ip) { print("+ " + ip.string() + " " + interfaceOf(ip)); },
                                   [](auto const& ip) { print("- " + ip.string()); },
                                   [] { print("! events were lost: what follows may be incomplete; start again"); });
    signals.wait();
}

}

int main(int argc, char** argv) // NOLINT(bugprone-exception-escape): may end the program
{
    CLI::App app("Prints the addresses of this machine with their interfaces.");
    bool follow = false;
    app.add_flag("--watch", follow, "Then prints what is added (+) and lost (-), until Ctrl-C");
    try
    {
        app.parse(argc, argv);
        Log::LoggerProxy::instance().setSink(std::make_shared<EndOfRetry>());
        Log::LoggerProxy::instance().setThreshold(Log::Severity::Error);
        follow ? watch() : list();
        return 0;
    }
    catch (CLI::CallForHelp const& help)
    {
        return app.exit(help);
    }
    catch (CLI::ParseError const& error)
    {
        std::cerr << "addresses: " << error.what() << '\n';
        return 2;
    }
    catch (std::exception const& error)
    {
        std::cerr << "addresses: " << error.what() << '\n';
        return 1;
    }
}
