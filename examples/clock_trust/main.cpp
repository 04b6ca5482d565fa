// Tells whether this machine's clock can be believed, and why.

#include "../support/Program.h"

#include <log/Logger.h>
#include <utils/PeriodicCallerManager.h>
#include <utils/SystemTimeHandler.h>

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <iostream>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

using namespace Halden::Tavro;
using namespace std::chrono_literals;

namespace
{

/// Keeps what the library logs: its lines name each device that was tried and what came of it.
class Findings : public Log::LoggerImplIfc
{
public:
    struct Finding
    {
        Log::Severity severity;
        std::string text;
    };

    void write(Log::Record const& record) override
    {
        if (record.logger == "SystemTime" || record.logger.empty())
        {
            std::lock_guard const lock(mutex);
            findings.push_back({record.severity, std::string(record.text)});
        }
    }

    std::vector<Finding> take()
    {
        std::lock_guard const lock(mutex);
        return std::exchange(findings, {});
    }

private:
    std::mutex mutex;
    std::vector<Finding> findings; // guarded by mutex
};

/// The criteria one by one, which services have no need for.
class Criteria : public Utils::SystemTimeHandler
{
public:
    using SystemTimeHandler::rtcValid;
    using SystemTimeHandler::syncedByService;

    Criteria()
        : Log::Logger("SystemTime", "", std::make_shared<Log::LoggerImpl>())
        , SystemTimeHandler(nullptr)
    {
    }
};

/// Polls every second, whatever period is asked for: somebody sits in front of the terminal.
class EverySecond : public Utils::PeriodicCallerManagerIfc
{
public:
    std::unique_ptr<Utils::PeriodicCallerManagerTokenIfc> add(std::function<void()> function,
                                                              std::chrono::duration<double> /*period*/) override
    {
        return manager->add(std::move(function), 1s);
    }

private:
    std::shared_ptr<Utils::PeriodicCallerManager> manager = std::make_shared<Utils::PeriodicCallerManager>(
        Utils::PeriodicCallerManager::ExecutionStrategy::Sequential, "clock_trust");
};

void print(std::string const& criterion, std::string const& answer, std::vector<Findings::Finding> const& findings)
{
    std::cout << criterion << ": " << answer << '\n';
    for (auto const& finding : findings)
    {
        std::cout << "    " << finding.text << '\n';
    }
}

std::string yesOrNo(bool yes)
{
    return yes ? "yes" : "no";
}

/// Starts to watch for the setting of the clock, and prints the third criterion.
void watch(Utils::SystemTimeHandler& handler, Findings& findings)
{
    handler.initialize();
    auto seen = findings.take();
    seen.erase(std::remove_if(seen.begin(), seen.end(),
                              [](auto const& finding) { return finding.severity > Log::Severity::Info; }),
               seen.end());
    bool const failed =
        std::any_of(seen.begin(), seen.end(),
                    [](auto const& finding) { return finding.text.rfind("Failed to start a timer", 0) == 0; });
    std::string const unset = failed ? "cannot be told" : "not since this program started";
    print("Clock set by somebody", handler.hasAbsoluteTime() ? "need not be watched" : unset, seen);
}

void waitUntilTrusted(Utils::SystemTimeHandler const& handler, std::chrono::seconds limit)
{
    bool const onTerminal = isatty(STDERR_FILENO) == 1;
    auto const start = std::chrono::steady_clock::now();
    auto elapsed = 0s;
    while (!handler.hasAbsoluteTime() && elapsed < limit)
    {
        if (onTerminal)
        {
            std::cerr << "\rWaiting for the time: " << elapsed.count() << " of " << limit.count() << " s" << std::flush;
        }
        std::this_thread::sleep_until(std::min(start + elapsed + 1s, start + limit));
        elapsed = std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - start);
    }
    if (onTerminal)
    {
        std::cerr << "\r\033[K";
    }
}

bool isTrusted(std::chrono::seconds wait)
{
    auto const findings = std::make_shared<Findings>();
    Log::LoggerProxy::instance().setSink(findings);
    Log::LoggerProxy::instance().setThreshold(Log::Severity::Debug);

    Criteria criteria;
    bool const synced = criteria.syncedByService();
    print("Synchronised by a service", yesOrNo(synced), findings->take());
    bool const agrees = criteria.rtcValid();
    print("Agrees with a real-time clock", yesOrNo(agrees), findings->take());

    auto const manager = std::make_shared<EverySecond>(); // outlives the handler
    Utils::SystemTimeHandler handler(manager);
    watch(handler, *findings);
    std::cout << std::flush;
    waitUntilTrusted(handler, wait);
    bool const trusted = handler.hasAbsoluteTime();
    for (auto const& finding : findings->take())
    {
        if (finding.severity <= Log::Severity::Info)
        {
            std::cout << finding.text << '\n';
        }
    }
    std::cout << (trusted ? "The time is absolute." : "The time cannot be believed.") << '\n';
    return trusted;
}

}

int main(int argc, char** argv) // NOLINT(bugprone-exception-escape): may end the program
{
    Program program("Tells whether the clock can be believed: status 0 when the time is absolute, else 1.");
    int wait = 0;
    program.option("--wait", wait, "Wait up to SECONDS until the time is absolute")
        .placeholder("SECONDS")
        .range(0, 1'000'000);
    return program.run(argc, argv, [&] { return isTrusted(std::chrono::seconds(wait)) ? 0 : 1; });
}
