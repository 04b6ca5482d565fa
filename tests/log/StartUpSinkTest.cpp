// The sink that a process starts with.

#include <log/Logger.h>

#include "support/ChildProcess.h"

#include <gmock/gmock.h>

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstddef>
#include <ctime>
#include <sstream>
#include <string>
#include <vector>

namespace Halden::Tavro::Log
{

namespace
{

using namespace std::chrono_literals;
using namespace testing;
using TestSupport::runInChild;

std::vector<std::string> linesOf(std::string const& output)
{
    std::istringstream stream(output);
    std::vector<std::string> lines;
    for (std::string line; std::getline(stream, line);)
    {
        lines.push_back(line);
    }
    return lines;
}

/// What the sink of the start writes for each of the times.
std::vector<std::string> startUpLines(std::vector<std::chrono::milliseconds> const& times)
{
    auto const child = runInChild(
        [&times]
        {
            LoggerProxy::instance().setSink(nullptr);
            auto const sut = LoggerProxy::instance().setSink(nullptr);
            for (auto const time : times)
            {
                sut->write({std::chrono::system_clock::time_point(time), Severity::Info, "", "text"});
            }
            return 0;
        });
    return linesOf(child.output);
}

std::string systemsDate(std::chrono::seconds time)
{
    std::time_t const unixTime = static_cast<std::time_t>(time.count());
    std::tm brokenDown{};
    gmtime_r(&unixTime, &brokenDown);
    std::array<char, 64> date{};
    std::strftime(date.data(), date.size(), "%Y-%m-%d %H:%M:%S", &brokenDown);
    return date.data();
}

TEST(StartUpSinkTest, TimeIsWrittenInUtc)
{
    constexpr std::chrono::hours year(8766);
    std::vector<std::chrono::milliseconds> times; // those that 32 bits hold
    for (std::chrono::milliseconds time = -67 * year; time < 67 * year; time += year / 20 + 12'345'678ms)
    {
        times.push_back(time);
    }

    auto const lines = startUpLines(times);

    ASSERT_EQ(lines.size(), times.size());
    for (std::size_t i = 0; i < times.size(); ++i)
    {
        auto const second = std::chrono::floor<std::chrono::seconds>(times[i]);
        std::string const milliseconds = std::to_string(1'000 + (times[i] - second).count()).substr(1);
        EXPECT_THAT(lines[i], StartsWith(systemsDate(second) + "." + milliseconds + " info "));
    }
}

TEST(StartUpSinkTest, YearWithoutALeapDayIsKnown)
{
    EXPECT_THAT(startUpLines({4'107'542'399'999ms, 4'107'542'400'000ms}),
                ElementsAre(StartsWith("2100-02-28 23:59:59.999 "), StartsWith("2100-03-01 00:00:00.000 ")));
}

TEST(StartUpSinkTest, EverySeverityIsWrittenThatIsEnabled)
{
    auto const child = runInChild(
        []
        {
            LoggerProxy::instance().setSink(nullptr);
            LoggerProxy::instance().setThreshold(Severity::Trace);
            for (int severity = 0; severity <= static_cast<int>(Severity::Trace); ++severity)
            {
                tavroDoLog(static_cast<Severity>(severity), "text", {});
            }
            return 0;
        });

    EXPECT_THAT(linesOf(child.output),
                ElementsAre(HasSubstr(" critical "), HasSubstr(" error "), HasSubstr(" warning "), HasSubstr(" info "),
                            HasSubstr(" debug "), HasSubstr(" trace ")));
}

TEST(StartUpSinkTest, EachLineIsWrittenAtOnce)
{
    std::array<int, 2> ends{};
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, ends.data()), 0); // keeps what is written at once together
    std::string const text(5'000, 'x');
    auto const child = runInChild(
        [&]
        {
            LoggerProxy::instance().setSink(nullptr);
            dup2(ends[1], STDERR_FILENO);
            Logger const sut("name", "", nullptr);
            sut.tavroDoLog(Severity::Info, "%s", {}, text.c_str());
            return 0;
        });
    close(ends[1]);

    std::string line(10'000, '\0');
    line.resize(static_cast<std::size_t>(std::max<ssize_t>(0, read(ends[0], line.data(), line.size()))));
    close(ends[0]);

    EXPECT_THAT(line, EndsWith(" [name] " + text + "\n"));
    EXPECT_EQ(line.find('\n'), line.size() - 1);
}

/// What the program LogAtAnyTime has written, which logs before main, in main and until its very end.
std::string outputOfLogAtAnyTime()
{
    auto const child = runInChild(
        []
        {
            execl(LOG_AT_ANY_TIME, LOG_AT_ANY_TIME, nullptr);
            return 127;
        });
    EXPECT_THAT(child.exitCode, Optional(0));
    return child.output;
}

TEST(StartUpSinkTest, TimeSeverityThreadNameAndTextAreWrittenFromBeforeMainUntilTheEnd)
{
    std::string const output = outputOfLogAtAnyTime();

    std::string const thread = output.substr(0, output.find('\n')); // the program's first line
    std::string const prefix = "[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3} ";
    EXPECT_THAT(output, MatchesRegex(thread + "\n" +                                              //
                                     prefix + "info " + thread + " \\[early\\] before main\n" +   //
                                     prefix + "critical " + thread + " \\[main\\] severity 0\n" + //
                                     prefix + "error " + thread + " \\[main\\] severity 1\n" +    //
                                     prefix + "warning " + thread + " \\[main\\] severity 2\n" +  //
                                     prefix + "info " + thread + " \\[main\\] severity 3\n" +     //
                                     prefix + "info " + thread + " no name\n" +                   //
                                     prefix + "info " + thread + " at exit\n" +                   //
                                     prefix + "error " + thread + " \\[early\\] destroyed\n" +    //
                                     prefix + "error " + thread + " \\[silent\\] destroyed\n"));
}

}

}
