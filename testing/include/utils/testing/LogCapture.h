#pragma once

#include <log/Logger.h>

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

/// What the tests of a service put in the place of a device.
namespace Halden::Tavro::Utils::Testing
{

/// One message as it was logged.
struct LogLine
{
    Log::Severity severity; ///< how severe it is
    std::string logger;     ///< empty for the free log call
    std::string text;       ///< the formatted message
};

/// Whether severity, logger and text are the same.
bool operator==(LogLine const& left, LogLine const& right);

/// Whether severity, logger or text differ.
bool operator!=(LogLine const& left, LogLine const& right);

/// The severity's number, the logger in brackets, the text.
std::ostream& operator<<(std::ostream& stream, LogLine const& line);

/// Captures what the process logs through the process-wide sink, as long as it lives. At its end it restores sink and
/// threshold.
///
///     LogCapture log;
///     service.start();
///     EXPECT_TRUE(log.waitFor([](LogLine const& line) { return line.text == "ready"; }));
///
/// LogCaptureGmock.h has one that takes GoogleMock's matchers, and fails the test at messages that it does not expect.
///
/// Threads: may be used from any. Predicates and the callback of onLine() run under the capture's lock, some of them on
/// the thread that logs: they must neither log nor use the capture. Captures inside one another end in reverse order.
class LogCapture
{
public:
    /// Whether a line is meant.
    using Predicate = std::function<bool(LogLine const&)>;

    /// @param mostVerbose the least severe messages that are captured
    explicit LogCapture(Log::Severity mostVerbose = Log::Severity::Trace);

    LogCapture(LogCapture const&) = delete;
    LogCapture& operator=(LogCapture const&) = delete;

    ~LogCapture();

    /// All lines so far, in the order of their arrival.
    std::vector<LogLine> lines() const;

    /// Those of one logger.
    std::vector<LogLine> linesOf(std::string const& logger) const;

    /// How many lines so far are meant.
    std::size_t count(Predicate const& line) const;

    /// Waits for a line that is meant, also by one that has come before.
    ///
    /// @return false when none has come within the limit
    bool waitFor(Predicate const& line, std::chrono::milliseconds limit = std::chrono::seconds(10)) const;

    /// Forgets the lines so far.
    void clear();

    /// From now on called with each line as it arrives, on the thread that logs. Empty for nothing.
    void onLine(std::function<void(LogLine const&)> callback);

private:
    class Sink;

    std::shared_ptr<Sink> const sink; // shared with loggers that may still be inside it when the capture ends
    std::shared_ptr<Log::LoggerImplIfc> const sinkBefore;
    Log::Severity const thresholdBefore;
};

}
