#include <log/Logger.h>

#include "support/ChildProcess.h"
#include "support/LogCapture.h"
#include "support/Resources.h"

#include <gmock/gmock.h>

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <ctime>
#include <functional>
#include <memory>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

using namespace Halden::Tavro;
using namespace testing;
using Log::Severity;
using TestSupport::heapAllocations;
using TestSupport::LogLine;
using TestSupport::runInChild;
using namespace std::chrono_literals;

namespace
{

constexpr std::array severities{Severity::Critical, Severity::Error, Severity::Warning,
                                Severity::Info,     Severity::Debug, Severity::Trace};

class KeepingSink : public Log::LoggerImplIfc
{
public:
    void write(Log::Record const& record) override
    {
        std::lock_guard const lock(mutex);
        kept.push_back({record.severity, std::string(record.logger), std::string(record.text)});
        times.push_back(record.time);
    }

    std::vector<LogLine> lines() const
    {
        std::lock_guard const lock(mutex);
        return kept;
    }

    std::chrono::system_clock::time_point timeOfLast() const
    {
        std::lock_guard const lock(mutex);
        return times.back();
    }

private:
    mutable std::mutex mutex;
    std::vector<LogLine> kept;                                // guarded by mutex
    std::vector<std::chrono::system_clock::time_point> times; // guarded by mutex
};

template <typename Thrown>
class ThrowingSink : public Log::LoggerImplIfc
{
public:
    explicit ThrowingSink(Thrown thrown)
        : thrown(std::move(thrown))
    {
    }

    void write(Log::Record const& /*record*/) override { throw thrown; }

private:
    Thrown thrown;
};

std::vector<Severity> enabledSeverities()
{
    std::vector<Severity> enabled;
    for (Severity const severity : severities)
    {
        if (Log::LoggerProxy::instance().isSeverityEnabled(severity))
        {
            enabled.push_back(severity);
        }
    }
    return enabled;
}

std::vector<Severity> const enabledBeforeMain = enabledSeverities();

class LoggerTest : public Test
{
protected:
    LoggerTest() { proxy.setSink(processWide); }

    ~LoggerTest() override
    {
        proxy.setThreshold(Severity::Info);
        proxy.setSink(nullptr);
    }

    Log::LoggerProxy& proxy = Log::LoggerProxy::instance();
    std::shared_ptr<KeepingSink> const processWide = std::make_shared<KeepingSink>();
};

TEST_F(LoggerTest, SeveritiesHaveTheValuesThatCrossLibraries)
{
    std::vector<int> values;
    for (Severity const severity : severities)
    {
        values.push_back(static_cast<int>(severity));
    }

    EXPECT_THAT(values, ElementsAre(0, 1, 2, 3, 4, 5));
}

TEST_F(LoggerTest, InfoIsTheMostVerboseSeverityAtStart)
{
    EXPECT_THAT(enabledBeforeMain, ElementsAre(Severity::Critical, Severity::Error, Severity::Warning, Severity::Info));
}

TEST_F(LoggerTest, ProxyIsOneForTheProcess)
{
    EXPECT_EQ(&Log::LoggerProxy::instance(), &proxy);
}

TEST_F(LoggerTest, ThresholdEnablesItselfAndWhatIsMoreSevere)
{
    for (std::size_t i = 0; i < severities.size(); ++i)
    {
        proxy.setThreshold(severities.at(i));

        EXPECT_THAT(enabledSeverities(), ElementsAreArray(severities.data(), i + 1));
    }
}

TEST_F(LoggerTest, MemberCallWritesWhatTheThresholdEnables)
{
    Log::Logger const sut("name", "", processWide);
    proxy.setThreshold(Severity::Warning);

    for (Severity const severity : severities)
    {
        sut.tavroDoLog(severity, "text", {});
    }

    EXPECT_THAT(processWide->lines(),
                ElementsAre(LogLine{Severity::Critical, "name", "text"}, LogLine{Severity::Error, "name", "text"},
                            LogLine{Severity::Warning, "name", "text"}));
}

TEST_F(LoggerTest, FreeCallWritesWhatTheThresholdEnablesWithoutAName)
{
    proxy.setThreshold(Severity::Error);

    for (Severity const severity : severities)
    {
        Log::tavroDoLog(severity, "text", {});
    }

    EXPECT_THAT(processWide->lines(),
                ElementsAre(LogLine{Severity::Critical, "", "text"}, LogLine{Severity::Error, "", "text"}));
}

TEST_F(LoggerTest, DisabledRecordIsNotFormatted)
{
    auto const child = runInChild(
        [this]
        {
            auto const* const unreadable = reinterpret_cast<char const*>(1); // formatting it would end the child
            Log::Logger const sut("name", "", processWide);

            sut.tavroDoLog(Severity::Debug, "%s", {}, unreadable);
            Log::tavroDoLog(Severity::Debug, "%s", {}, unreadable);
            return processWide->lines().empty() ? 0 : 1;
        });

    EXPECT_THAT(child.exitCode, Optional(0)) << child.output;
}

TEST_F(LoggerTest, DisabledRecordAllocatesNothing)
{
    Log::Logger const sut("name", "", processWide);
    char const* const text = "text";

    std::size_t const before = heapAllocations();
    sut.tavroDoLog(Severity::Debug, "a format longer than any short string: %s", {}, text);
    Log::tavroDoLog(Severity::Debug, "a format longer than any short string: %s", {}, text);
    std::size_t const afterDisabled = heapAllocations();
    sut.tavroDoLog(Severity::Info, "a format longer than any short string: %s", {}, text);
    std::size_t const afterEnabled = heapAllocations();

    EXPECT_EQ(afterDisabled, before);
    EXPECT_GT(afterEnabled, afterDisabled) << "the counting does not work";
}

TEST_F(LoggerTest, FunctionArgumentIsNeverCalled)
{
    int calls = 0;
    std::function<std::string()> const function = [&calls]
    {
        ++calls;
        return std::string("unwanted");
    };
    Log::Logger const sut("name", "", processWide);

    sut.tavroDoLog(Severity::Info, "text", function);
    Log::tavroDoLog(Severity::Info, "text", function);

    EXPECT_EQ(calls, 0);
    EXPECT_THAT(processWide->lines(),
                ElementsAre(LogLine{Severity::Info, "name", "text"}, LogLine{Severity::Info, "", "text"}));
}

TEST_F(LoggerTest, RecordCarriesTheTimeOfTheCall)
{
    auto const before = std::chrono::system_clock::now();
    Log::tavroDoLog(Severity::Info, "text", {});
    auto const after = std::chrono::system_clock::now();

    EXPECT_THAT(processWide->timeOfLast(), AllOf(Ge(before), Le(after)));
}

TEST_F(LoggerTest, OwnSinkGetsTheRecordsInsteadOfTheProcessWideOne)
{
    auto const own = std::make_shared<KeepingSink>();
    Log::Logger const sut("name", "", own);

    sut.tavroDoLog(Severity::Info, "text", {});

    EXPECT_THAT(own->lines(), ElementsAre(LogLine{Severity::Info, "name", "text"}));
    EXPECT_THAT(processWide->lines(), IsEmpty());
}

TEST_F(LoggerTest, DefaultSinkFollowsTheProcessWideOne)
{
    Log::Logger const sut("name", "", std::make_shared<Log::LoggerImpl>());
    auto const next = std::make_shared<KeepingSink>();

    sut.tavroDoLog(Severity::Info, "first", {});
    proxy.setSink(next);
    sut.tavroDoLog(Severity::Info, "second", {});

    EXPECT_THAT(processWide->lines(), ElementsAre(LogLine{Severity::Info, "name", "first"}));
    EXPECT_THAT(next->lines(), ElementsAre(LogLine{Severity::Info, "name", "second"}));
}

TEST_F(LoggerTest, NullSinkOfALoggerStandsForTheDefaultOne)
{
    Log::Logger const sut("name", "", nullptr);

    sut.tavroDoLog(Severity::Info, "text", {});

    EXPECT_THAT(processWide->lines(), ElementsAre(LogLine{Severity::Info, "name", "text"}));
}

TEST_F(LoggerTest, SetSinkReturnsTheOneBefore)
{
    auto const next = std::make_shared<KeepingSink>();

    EXPECT_EQ(proxy.setSink(next), processWide);
    EXPECT_EQ(proxy.setSink(processWide), next);
}

TEST_F(LoggerTest, SetSinkReturnsTheSinkOfTheStartAsWell)
{
    proxy.setSink(nullptr);

    auto const startUp = proxy.setSink(processWide);

    ASSERT_NE(startUp, nullptr);
    proxy.setSink(startUp);
    EXPECT_EQ(proxy.setSink(nullptr), startUp);
    EXPECT_EQ(proxy.setSink(nullptr), startUp);
}

TEST_F(LoggerTest, NullRestoresTheSinkOfTheStart)
{
    auto const child = runInChild(
        [this]
        {
            proxy.setSink(nullptr);
            Log::tavroDoLog(Severity::Info, "text", {});
            return 0;
        });

    EXPECT_THAT(child.exitCode, Optional(0));
    EXPECT_THAT(child.output, EndsWith(" text\n"));
    EXPECT_THAT(processWide->lines(), IsEmpty());
}

TEST_F(LoggerTest, ReplacedSinkIsReleased)
{
    auto sink = std::make_shared<KeepingSink>();
    std::weak_ptr<KeepingSink> const watched = sink;
    proxy.setSink(std::move(sink));

    proxy.setSink(nullptr);

    EXPECT_TRUE(watched.expired());
}

TEST_F(LoggerTest, LoggerReleasesItsSink)
{
    auto sink = std::make_shared<KeepingSink>();
    std::weak_ptr<KeepingSink> const watched = sink;
    {
        Log::Logger const sut("name", "", std::move(sink));
        ASSERT_FALSE(watched.expired());
    }

    EXPECT_TRUE(watched.expired());
}

TEST_F(LoggerTest, ValuesAreFormattedAsPrintfDoes)
{
    Log::Logger const sut("name", "", processWide);

    sut.tavroDoLog(Severity::Info, "%s|%d|%u|%lu|%f|100%%", {}, "text", -2147483647, 4294967295U, 4294967295UL, -1.5);
    Log::tavroDoLog(Severity::Info, "%s|%d|%u|%lu|%f|100%%", {}, "", 0, 0U, 0UL, 1e10);

    EXPECT_THAT(processWide->lines(),
                ElementsAre(LogLine{Severity::Info, "name", "text|-2147483647|4294967295|4294967295|-1.500000|100%"},
                            LogLine{Severity::Info, "", "|0|0|0|10000000000.000000|100%"}));
}

TEST_F(LoggerTest, MoreValuesThanRegistersHoldArriveInOrder)
{
    Log::tavroDoLog(Severity::Info, "%d %f %d %f %d %f %d %f %d %f %d %f %d %f %d %f %d %f", {}, 1, 1.5, 2, 2.5, 3, 3.5,
                    4, 4.5, 5, 5.5, 6, 6.5, 7, 7.5, 8, 8.5, 9, 9.5);

    EXPECT_THAT(processWide->lines(),
                ElementsAre(LogLine{Severity::Info, "",
                                    "1 1.500000 2 2.500000 3 3.500000 4 4.500000 5 5.500000 6 6.500000 7 7.500000 "
                                    "8 8.500000 9 9.500000"}));
}

TEST_F(LoggerTest, TextsOfAnyLengthArriveWhole)
{
    std::vector<LogLine> expected;
    for (std::size_t const length : {0U, 1U, 510U, 511U, 512U, 513U, 1024U, 5000U})
    {
        expected.push_back({Severity::Info, "", std::string(length, 'x')});

        Log::tavroDoLog(Severity::Info, "%s", {}, expected.back().text.c_str());
    }

    EXPECT_THAT(processWide->lines(), ElementsAreArray(expected));
}

TEST_F(LoggerTest, ValuesOfALongTextAreReadFromTheFirstOn)
{
    std::string const filler(600, 'x');

    Log::tavroDoLog(Severity::Info, "%d %s %f %lu", {}, 1, filler.c_str(), 2.5, 3UL);

    EXPECT_THAT(processWide->lines(), ElementsAre(LogLine{Severity::Info, "", "1 " + filler + " 2.500000 3"}));
}

TEST_F(LoggerTest, BufferPassedByValuePrintsItsTextWhateverIsEnabled)
{
    Log::Logger const sut("name", "", processWide);
    std::array<char, 2048> large{};
    large.fill('x');
    large.at(1000) = '\0';
    struct
    {
        char text[4]{'a', 'b'};
    } const small;
    std::array<char, 4> const full{'a', 'b', 'c', 'd'};

    for (Severity const threshold : severities)
    {
        proxy.setThreshold(threshold);
        sut.tavroDoLog(Severity::Debug, "%d %s %s", {}, 1, large, small);
        Log::tavroDoLog(Severity::Debug, "%s, %s %f", {}, full, "text", 2.5);
    }

    LogLine const ofMember{Severity::Debug, "name", "1 " + std::string(1000, 'x') + " ab"};
    LogLine const ofFree{Severity::Debug, "", "abc, text 2.500000"};
    EXPECT_THAT(processWide->lines(), ElementsAre(ofMember, ofFree, ofMember, ofFree)); // Debug and Trace
}

TEST_F(LoggerTest, FormatEndsWhereItsViewEnds)
{
    std::string_view const format("+start() and more %s", 8);

    Log::Logger("name", "", processWide).tavroDoLog(Severity::Info, format, {});
    Log::tavroDoLog(Severity::Info, format, {});
    Log::tavroDoLog(Severity::Info, {}, {});

    EXPECT_THAT(processWide->lines(),
                ElementsAre(LogLine{Severity::Info, "name", "+start()"}, LogLine{Severity::Info, "", "+start()"},
                            LogLine{Severity::Info, "", ""}));
}

TEST_F(LoggerTest, WhatCannotBeFormattedArrivesAsItsFormat)
{
    Log::tavroDoLog(Severity::Info, "price: %ls", {}, L"\u20ac"); // not a character of the "C" locale

    EXPECT_THAT(processWide->lines(), ElementsAre(LogLine{Severity::Info, "", "price: %ls"}));
}

TEST_F(LoggerTest, StandardExceptionOfASinkIsDropped)
{
    auto const throwing = std::make_shared<ThrowingSink<std::runtime_error>>(std::runtime_error("disk full"));
    Log::Logger const sut("name", "", throwing);
    proxy.setSink(throwing);

    EXPECT_NO_THROW(sut.tavroDoLog(Severity::Info, "text", {}));
    EXPECT_NO_THROW(Log::tavroDoLog(Severity::Info, "text", {}));
}

TEST_F(LoggerTest, AnyOtherExceptionOfASinkIsDropped)
{
    auto const throwing = std::make_shared<ThrowingSink<int>>(42);
    Log::Logger const sut("name", "", throwing);
    proxy.setSink(throwing);

    EXPECT_NO_THROW(sut.tavroDoLog(Severity::Info, "text", {}));
    EXPECT_NO_THROW(Log::tavroDoLog(Severity::Info, "text", {}));
}

TEST_F(LoggerTest, LoggingGoesOnAfterASinkHasThrown)
{
    Log::Logger const sut("name", "", std::make_shared<Log::LoggerImpl>());
    proxy.setSink(std::make_shared<ThrowingSink<int>>(42));
    sut.tavroDoLog(Severity::Info, "lost", {});

    proxy.setSink(processWide);
    sut.tavroDoLog(Severity::Info, "kept", {});

    EXPECT_THAT(processWide->lines(), ElementsAre(LogLine{Severity::Info, "name", "kept"}));
}

TEST_F(LoggerTest, ConcurrentCallsLoseNothingWhileSinkAndThresholdChange)
{
    constexpr int callers = 4;
    constexpr int calls = 500;
    auto const other = std::make_shared<KeepingSink>();
    Log::Logger const sut("name", "", std::make_shared<Log::LoggerImpl>());

    std::vector<std::thread> threads;
    std::vector<LogLine> expected;
    for (int caller = 0; caller < callers; ++caller)
    {
        for (int call = 0; call < calls; ++call)
        {
            std::string const text = std::to_string(caller) + ":" + std::to_string(call);
            expected.push_back({Severity::Error, "name", text});
            expected.push_back({Severity::Error, "", text});
        }
        threads.emplace_back(
            [&sut, caller]
            {
                for (int call = 0; call < calls; ++call)
                {
                    sut.tavroDoLog(Severity::Error, "%d:%d", {}, caller, call);
                    Log::tavroDoLog(Severity::Error, "%d:%d", {}, caller, call);
                }
            });
    }
    for (int change = 0; change < calls; ++change)
    {
        proxy.setSink(change % 2 == 0 ? other : processWide);
        proxy.setThreshold(change % 2 == 0 ? Severity::Trace : Severity::Error);
    }
    for (std::thread& thread : threads)
    {
        thread.join();
    }

    std::vector<LogLine> all = processWide->lines();
    std::vector<LogLine> const others = other->lines();
    all.insert(all.end(), others.begin(), others.end());
    auto const byText = [](LogLine const& left, LogLine const& right)
    { return std::tie(left.text, left.logger) < std::tie(right.text, right.logger); };
    std::sort(all.begin(), all.end(), byText);
    std::sort(expected.begin(), expected.end(), byText);
    EXPECT_TRUE(all == expected) << all.size() << " of " << expected.size() << " records";
}

/// What the sink of the start writes for each of the times.
std::vector<std::string> startUpLines(std::vector<std::chrono::milliseconds> const& times)
{
    auto const child = runInChild(
        [&times]
        {
            Log::LoggerProxy::instance().setSink(nullptr);
            auto const sut = Log::LoggerProxy::instance().setSink(nullptr);
            for (auto const time : times)
            {
                sut->write({std::chrono::system_clock::time_point(time), Severity::Info, "", "text"});
            }
            return 0;
        });
    std::istringstream output(child.output);
    std::vector<std::string> lines;
    for (std::string line; std::getline(output, line);)
    {
        lines.push_back(line);
    }
    return lines;
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

TEST_F(LoggerTest, SinkOfTheStartWritesTheTimeInUtc)
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

TEST_F(LoggerTest, SinkOfTheStartKnowsTheYearWithoutALeapDay)
{
    EXPECT_THAT(startUpLines({4'107'542'399'999ms, 4'107'542'400'000ms}),
                ElementsAre(StartsWith("2100-02-28 23:59:59.999 "), StartsWith("2100-03-01 00:00:00.000 ")));
}

TEST_F(LoggerTest, SinkOfTheStartWritesEachLineWithOneWrite)
{
    std::array<int, 2> ends{};
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, ends.data()), 0); // keeps what is written at once together
    std::string const text(5'000, 'x');
    auto const child = runInChild(
        [&]
        {
            proxy.setSink(nullptr);
            dup2(ends[1], STDERR_FILENO);
            Log::Logger const sut("name", "", nullptr);
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

TEST_F(LoggerTest, SinkOfTheStartWritesTimeSeverityThreadNameAndTextFromBeforeMainUntilTheEnd)
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
