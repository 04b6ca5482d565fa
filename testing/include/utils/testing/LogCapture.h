#pragma once

#include <log/Logger.h>

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

namespace Halden::Tavro::Utils::Testing
{

/// One message as it was logged.
struct LogLine
{
    Log::Severity severity;
    std::string logger; ///< empty for the free log call
    std::string text;
};

bool operator==(LogLine const& left, LogLine const& right);
bool operator!=(LogLine const& left, LogLine const& right);

/// The severity's number, the logger in brackets, the text.
std::ostream& operator<<(std::ostream& stream, LogLine const& line);

/// Captures what the process logs through the process-wide sink, for as long as it lives. Then sink and threshold are
/// again what they were before.
///
///     LogCapture log;
///     service.start();
///     log.waitFor([](LogLine const& line) { return line.text == "ready"; });
///
/// See LogCaptureGmock.h for one that takes GoogleMock's matchers, and fails the test at messages it does not expect.
///
/// Threads: may be used from any. Predicates and the callback of onLine() run under the capture's lock, some of them on
/// the thread that logs: they neither log nor use the capture. Captures inside one another end in reverse order.
class LogCapture
{
public:
    using Predicate = std::function<bool(LogLine const&)>;

    /// @param mostVerbose the last severity that is captured
    explicit LogCapture(Log::Severity mostVerbose = Log::Severity::Trace);

    LogCapture(LogCapture const&) = delete;
    LogCapture& operator=(LogCapture const&) = delete;

    ~LogCapture();

    /// All lines so far, in the order of their arrival.
    std::vector<LogLine> lines() const;

    /// Those of one logger.
    std::vector<LogLine> linesOf(std::string const& logger) const;

    std::size_t count(Predicate const& line) const;

    /// Returns as soon as there is such a line, one that has come before included.
    ///
    /// @return false when none has come within the limit
    bool waitFor(Predicate const& line, std::chrono::milliseconds limit = std::chrono::seconds(10)) const;

    /// Forgets the lines so far.
    void clear();

    /// Called with each line as it arrives, on the thread that logs. Empty for nothing.
    void onLine(std::function<void(LogLine const&)> callback);

private:
    class Sink;

    std::shared_ptr<Sink> const sink; // shared with loggers that may still be inside it when the capture ends
    std::shared_ptr<Log::LoggerImplIfc> const sinkBefore;
    Log::Severity const thresholdBefore;
};

}
