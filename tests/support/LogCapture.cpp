#include "support/LogCapture.h"

#include "support/WaitFor.h"

#include <algorithm>

namespace Halden::Tavro::TestSupport
{

class LogCapture::Sink : public Log::LoggerImplIfc
{
public:
    void write(Log::Record const& record) override
    {
        std::lock_guard const lock(mutex);
        lines.push_back({record.severity, std::string(record.logger), std::string(record.text)});
        if (callback)
        {
            callback(lines.back());
        }
    }

    std::mutex mutex;                             // recursion never happens: a callback does not log
    std::vector<LogLine> lines;                   // guarded by mutex
    std::function<void(LogLine const&)> callback; // guarded by mutex
};

namespace
{

Log::Severity currentThreshold()
{
    auto const& proxy = Log::LoggerProxy::instance();
    auto severity = Log::Severity::Trace;
    while (severity != Log::Severity::Critical && !proxy.isSeverityEnabled(severity))
    {
        severity = static_cast<Log::Severity>(static_cast<int>(severity) - 1);
    }
    return severity;
}

}

std::ostream& operator<<(std::ostream& stream, LogLine const& line)
{
    return stream << static_cast<int>(line.severity) << " [" << line.logger << "] " << line.text;
}

LogCapture::LogCapture(Log::Severity mostVerbose)
    : sink(std::make_shared<Sink>())
    , sinkBefore(Log::LoggerProxy::instance().setSink(sink))
    , thresholdBefore(currentThreshold())
{
    Log::LoggerProxy::instance().setThreshold(mostVerbose);
}

LogCapture::~LogCapture()
{
    Log::LoggerProxy::instance().setThreshold(thresholdBefore);
    Log::LoggerProxy::instance().setSink(sinkBefore);
    for (LogLine const& line : lines())
    {
        auto const announces = [&line](auto const& matcher) { return matcher.Matches(line); };
        if (line.severity <= Log::Severity::Warning && std::none_of(expected.begin(), expected.end(), announces))
        {
            ADD_FAILURE() << "unexpected log line: " << line;
        }
    }
}

void LogCapture::expect(testing::Matcher<LogLine const&> const& line)
{
    expected.push_back(line);
}

std::vector<LogLine> LogCapture::lines() const
{
    std::lock_guard const lock(sink->mutex);
    return sink->lines;
}

std::vector<LogLine> LogCapture::linesOf(std::string const& logger) const
{
    std::vector<LogLine> result = lines();
    result.erase(std::remove_if(result.begin(), result.end(), [&](auto const& line) { return line.logger != logger; }),
                 result.end());
    return result;
}

std::size_t LogCapture::count(testing::Matcher<LogLine const&> const& line) const
{
    auto const all = lines();
    return static_cast<std::size_t>(
        std::count_if(all.begin(), all.end(), [&line](auto const& candidate) { return line.Matches(candidate); }));
}

bool LogCapture::waitFor(testing::Matcher<LogLine const&> const& line) const
{
    return TestSupport::waitFor([&] { return count(line) > 0; });
}

void LogCapture::clear()
{
    std::lock_guard const lock(sink->mutex);
    sink->lines.clear();
}

void LogCapture::onLine(std::function<void(LogLine const&)> callback)
{
    std::lock_guard const lock(sink->mutex);
    sink->callback = std::move(callback);
}

}
