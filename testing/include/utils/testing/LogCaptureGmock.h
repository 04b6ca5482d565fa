#pragma once

#include <utils/testing/LogCapture.h>

#include <gmock/gmock.h>

#include <algorithm>
#include <string>
#include <vector>

namespace Halden::Tavro::Utils::Testing
{

/// Matches a captured line; logger and text are matchers or strings.
///
///     EXPECT_THAT(log.lines(), Contains(isLine(Severity::Error, "Service", StartsWith("No answer"))));
inline testing::Matcher<LogLine const&> isLine(Log::Severity severity,
                                               testing::Matcher<std::string const&> const& logger,
                                               testing::Matcher<std::string const&> const& text)
{
    return testing::AllOf(testing::Field("severity", &LogLine::severity, severity),
                          testing::Field("logger", &LogLine::logger, logger),
                          testing::Field("text", &LogLine::text, text));
}

/// A capture that also fails the test: at its end, for each line at Warning or worse that no expect() has announced.
/// What clear() has forgotten does not count.
///
/// Threads: as LogCapture; expect() and the end belong to the thread of the test.
class StrictLogCapture : public LogCapture
{
public:
    using LogCapture::LogCapture;

    StrictLogCapture(StrictLogCapture const&) = delete;
    StrictLogCapture& operator=(StrictLogCapture const&) = delete;

    ~StrictLogCapture()
    {
        for (LogLine const& line : lines())
        {
            auto const announces = [&line](auto const& matcher) { return matcher.Matches(line); };
            if (line.severity <= Log::Severity::Warning && std::none_of(expected.begin(), expected.end(), announces))
            {
                ADD_FAILURE() << "unexpected log line: " << line;
            }
        }
    }

    /// Announces lines, any number of them, that may come although they are severe.
    void expect(testing::Matcher<LogLine const&> const& line) { expected.push_back(line); }

    /// How many lines so far match.
    std::size_t count(testing::Matcher<LogLine const&> const& line) const
    {
        return LogCapture::count(testing::Matches(line));
    }

    /// As LogCapture::waitFor(), for a line that matches.
    bool waitFor(testing::Matcher<LogLine const&> const& line,
                 std::chrono::milliseconds limit = std::chrono::seconds(10)) const
    {
        return LogCapture::waitFor(testing::Matches(line), limit);
    }

private:
    std::vector<testing::Matcher<LogLine const&>> expected;
};

}
