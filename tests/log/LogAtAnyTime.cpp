// Logs before main, in main and during exit, to the sink of the start.

#include <log/Logger.h>

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <utility>

using Halden::Tavro::Log::Logger;
using Halden::Tavro::Log::LoggerImpl;
using Halden::Tavro::Log::Severity;
using Halden::Tavro::Log::tavroDoLog;

namespace
{

class LogsWhenDestroyed : protected Logger
{
public:
    explicit LogsWhenDestroyed(std::string name)
        : Logger(std::move(name), "", std::make_shared<LoggerImpl>())
    {
    }

    LogsWhenDestroyed(LogsWhenDestroyed const&) = delete;
    LogsWhenDestroyed& operator=(LogsWhenDestroyed const&) = delete;

    ~LogsWhenDestroyed() { tavroDoLog(Severity::Error, "destroyed", {}); }
};

class LogsWhenMade : public LogsWhenDestroyed
{
public:
    explicit LogsWhenMade(std::string name)
        : LogsWhenDestroyed(std::move(name))
    {
        dprintf(STDERR_FILENO, "%d\n", gettid());
        tavroDoLog(Severity::Info, "before main", {});
    }
};

LogsWhenDestroyed const silent("silent"); // older than the first message, so destroyed after whatever that one makes
LogsWhenMade const early("early");

}

int main()
{
    if (std::atexit([] { tavroDoLog(Severity::Info, "at exit", {}); }) != 0)
    {
        return EXIT_FAILURE;
    }

    Logger const logger("main", "", std::make_shared<LoggerImpl>());
    for (int severity = 0; severity <= static_cast<int>(Severity::Trace); ++severity)
    {
        logger.tavroDoLog(static_cast<Severity>(severity), "severity %d", {}, severity);
    }
    tavroDoLog(Severity::Info, "no name", {});
    return EXIT_SUCCESS;
}
