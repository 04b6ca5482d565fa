// Which records are written, and to which sink.

#include <log/Logger.h>

#include "support/ChildProcess.h"
#include "support/LogCapture.h"
#include "support/Resources.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

namespace Halden::Tavro::Log
{

namespace
{

using namespace testing;
using TestSupport::heapAllocations;
using TestSupport::LogLine;
using TestSupport::runInChild;

constexpr std::array severities{Severity::Critical, Severity::Error, Severity::Warning,
                                Severity::Info,     Severity::Debug, Severity::Trace};

class KeepingSink : public LoggerImplIfc
{
public:
    void write(Record const& record) override
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
class ThrowingSink : public LoggerImplIfc
{
public:
    explicit ThrowingSink(Thrown thrown)
        : thrown(std::move(thrown))
    {
    }

    void write(Record const& /*record*/) override { throw thrown; }

private:
    Thrown thrown;
};

std::vector<Severity> enabledSeverities()
{
    std::vector<Severity> enabled;
    for (Severity const severity : severities)
    {
        if (LoggerProxy::instance().isSeverityEnabled(severity))
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

    LoggerProxy& proxy = LoggerProxy::instance();
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
    EXPECT_EQ(&LoggerProxy::instance(), &proxy);
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
    Logger const sut("name", "", processWide);
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
        tavroDoLog(severity, "text", {});
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
            Logger const sut("name", "", processWide);

            sut.tavroDoLog(Severity::Debug, "%s", {}, unreadable);
            tavroDoLog(Severity::Debug, "%s", {}, unreadable);
            return processWide->lines().empty() ? 0 : 1;
        });

    EXPECT_THAT(child.exitCode, Optional(0)) << child.output;
}

TEST_F(LoggerTest, DisabledRecordAllocatesNothing)
{
    Logger const sut("name", "", processWide);
    char const* const text = "text";

    std::size_t const before = heapAllocations();
    sut.tavroDoLog(Severity::Debug, "a format longer than any short string: %s", {}, text);
    tavroDoLog(Severity::Debug, "a format longer than any short string: %s", {}, text);
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
    Logger const sut("name", "", processWide);

    sut.tavroDoLog(Severity::Info, "text", function);
    tavroDoLog(Severity::Info, "text", function);

    EXPECT_EQ(calls, 0);
    EXPECT_THAT(processWide->lines(),
                ElementsAre(LogLine{Severity::Info, "name", "text"}, LogLine{Severity::Info, "", "text"}));
}

TEST_F(LoggerTest, RecordCarriesTheTimeOfTheCall)
{
    auto const before = std::chrono::system_clock::now();
    tavroDoLog(Severity::Info, "text", {});
    auto const after = std::chrono::system_clock::now();

    EXPECT_THAT(processWide->timeOfLast(), AllOf(Ge(before), Le(after)));
}

TEST_F(LoggerTest, OwnSinkGetsTheRecordsInsteadOfTheProcessWideOne)
{
    auto const own = std::make_shared<KeepingSink>();
    Logger const sut("name", "", own);

    sut.tavroDoLog(Severity::Info, "text", {});

    EXPECT_THAT(own->lines(), ElementsAre(LogLine{Severity::Info, "name", "text"}));
    EXPECT_THAT(processWide->lines(), IsEmpty());
}

TEST_F(LoggerTest, DefaultSinkFollowsTheProcessWideOne)
{
    Logger const sut("name", "", std::make_shared<LoggerImpl>());
    auto const next = std::make_shared<KeepingSink>();

    sut.tavroDoLog(Severity::Info, "first", {});
    proxy.setSink(next);
    sut.tavroDoLog(Severity::Info, "second", {});

    EXPECT_THAT(processWide->lines(), ElementsAre(LogLine{Severity::Info, "name", "first"}));
    EXPECT_THAT(next->lines(), ElementsAre(LogLine{Severity::Info, "name", "second"}));
}

TEST_F(LoggerTest, NullSinkOfALoggerStandsForTheDefaultOne)
{
    Logger const sut("name", "", nullptr);

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
            tavroDoLog(Severity::Info, "text", {});
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
        Logger const sut("name", "", std::move(sink));
        ASSERT_FALSE(watched.expired());
    }

    EXPECT_TRUE(watched.expired());
}

TEST_F(LoggerTest, StandardExceptionOfASinkIsDropped)
{
    auto const throwing = std::make_shared<ThrowingSink<std::runtime_error>>(std::runtime_error("disk full"));
    Logger const sut("name", "", throwing);
    proxy.setSink(throwing);

    EXPECT_NO_THROW(sut.tavroDoLog(Severity::Info, "text", {}));
    EXPECT_NO_THROW(tavroDoLog(Severity::Info, "text", {}));
}

TEST_F(LoggerTest, AnyOtherExceptionOfASinkIsDropped)
{
    auto const throwing = std::make_shared<ThrowingSink<int>>(42);
    Logger const sut("name", "", throwing);
    proxy.setSink(throwing);

    EXPECT_NO_THROW(sut.tavroDoLog(Severity::Info, "text", {}));
    EXPECT_NO_THROW(tavroDoLog(Severity::Info, "text", {}));
}

TEST_F(LoggerTest, LoggingGoesOnAfterASinkHasThrown)
{
    Logger const sut("name", "", std::make_shared<LoggerImpl>());
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
    Logger const sut("name", "", std::make_shared<LoggerImpl>());

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
                    tavroDoLog(Severity::Error, "%d:%d", {}, caller, call);
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

}

}
