#pragma once

#include <log/Logger.h>

#include <gmock/gmock.h>

#include <functional>
#include <memory>
#include <mutex>
#include <ostream>
#include <string>
#include <vector>

namespace Halden::Tavro::TestSupport
{

struct LogLine
{
    Log::Severity severity;
    std::string logger;
    std::string text;
};

inline bool operator==(LogLine const& left, LogLine const& right)
{
    return left.severity == right.severity && left.logger == right.logger && left.text == right.text;
}

std::ostream& operator<<(std::ostream& stream, LogLine const& line);

/// Captures what the process logs, for as long as it lives.
///
/// A line at severity Warning or worse that no expect() has announced fails the test when the capture ends.
class LogCapture
{
public:
    explicit LogCapture(Log::Severity mostVerbose = Log::Severity::Trace);
    ~LogCapture();

    LogCapture(LogCapture const&) = delete;
    LogCapture& operator=(LogCapture const&) = delete;

    /// Announces lines, any number of them, that are no fault although they are severe.
    void expect(testing::Matcher<LogLine const&> const& line);

    /// All lines so far, in the order of their arrival.
    std::vector<LogLine> lines() const;

    /// Those of one logger.
    std::vector<LogLine> linesOf(std::string const& logger) const;

    std::size_t count(testing::Matcher<LogLine const&> const& line) const;

    /// @return false when the line has not come within 10 s
    bool waitFor(testing::Matcher<LogLine const&> const& line) const;

    void clear();

    /// Called with each line as it arrives, on the thread that logs.
    void onLine(std::function<void(LogLine const&)> callback);

private:
    class Sink;

    std::shared_ptr<Sink> sink;
    std::shared_ptr<Log::LoggerImplIfc> sinkBefore;
    Log::Severity thresholdBefore;
    std::vector<testing::Matcher<LogLine const&>> expected;
};

/// Matches one captured line; each part is a matcher or a value.
template <typename Text>
testing::Matcher<LogLine const&> isLine(Log::Severity severity, std::string const& logger, Text const& text)
{
    return testing::AllOf(testing::Field("severity", &LogLine::severity, severity),
                          testing::Field("logger", &LogLine::logger, logger),
                          testing::Field("text", &LogLine::text, text));
}

}
