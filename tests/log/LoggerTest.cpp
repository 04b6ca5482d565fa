// Which records are written, and what they say.

#include <log/Logger.h>

#include "log/LoggerFixture.h"
#include "support/ChildProcess.h"
#include "support/Resources.h"

#include <gmock/gmock.h>

#include <array>
#include <chrono>
#include <functional>
#include <string>
#include <vector>

namespace Halden::Tavro::Log
{

namespace
{

using namespace testing;
using namespace TestSupport;

constexpr std::array severities{Severity::Critical, Severity::Error, Severity::Warning,
                                Severity::Info,     Severity::Debug, Severity::Trace};

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

using LoggerTest = LoggerFixture;

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

}

}
