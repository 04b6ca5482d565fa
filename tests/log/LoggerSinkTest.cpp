// Which sink gets the records, for how long, and what comes of its exceptions.

#include <log/Logger.h>

#include "log/LoggerFixture.h"
#include "support/ChildProcess.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <memory>
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
using namespace TestSupport;

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

using LoggerSinkTest = LoggerFixture;

TEST_F(LoggerSinkTest, OwnSinkGetsTheRecordsInsteadOfTheProcessWideOne)
{
    auto const own = std::make_shared<KeepingSink>();
    Logger const sut("name", "", own);

    sut.tavroDoLog(Severity::Info, "text", {});

    EXPECT_THAT(own->lines(), ElementsAre(LogLine{Severity::Info, "name", "text"}));
    EXPECT_THAT(processWide->lines(), IsEmpty());
}

TEST_F(LoggerSinkTest, DefaultSinkFollowsTheProcessWideOne)
{
    Logger const sut("name", "", std::make_shared<LoggerImpl>());
    auto const next = std::make_shared<KeepingSink>();

    sut.tavroDoLog(Severity::Info, "first", {});
    proxy.setSink(next);
    sut.tavroDoLog(Severity::Info, "second", {});

    EXPECT_THAT(processWide->lines(), ElementsAre(LogLine{Severity::Info, "name", "first"}));
    EXPECT_THAT(next->lines(), ElementsAre(LogLine{Severity::Info, "name", "second"}));
}

TEST_F(LoggerSinkTest, NullSinkOfALoggerStandsForTheDefaultOne)
{
    Logger const sut("name", "", nullptr);

    sut.tavroDoLog(Severity::Info, "text", {});

    EXPECT_THAT(processWide->lines(), ElementsAre(LogLine{Severity::Info, "name", "text"}));
}

TEST_F(LoggerSinkTest, SetSinkReturnsTheOneBefore)
{
    auto const next = std::make_shared<KeepingSink>();

    EXPECT_EQ(proxy.setSink(next), processWide);
    EXPECT_EQ(proxy.setSink(processWide), next);
}

TEST_F(LoggerSinkTest, SetSinkReturnsTheSinkOfTheStartAsWell)
{
    proxy.setSink(nullptr);

    auto const startUp = proxy.setSink(processWide);

    ASSERT_NE(startUp, nullptr);
    proxy.setSink(startUp);
    EXPECT_EQ(proxy.setSink(nullptr), startUp);
    EXPECT_EQ(proxy.setSink(nullptr), startUp);
}

TEST_F(LoggerSinkTest, NullRestoresTheSinkOfTheStart)
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

TEST_F(LoggerSinkTest, ReplacedSinkIsReleased)
{
    auto sink = std::make_shared<KeepingSink>();
    std::weak_ptr<KeepingSink> const watched = sink;
    proxy.setSink(std::move(sink));

    proxy.setSink(nullptr);

    EXPECT_TRUE(watched.expired());
}

TEST_F(LoggerSinkTest, LoggerReleasesItsSink)
{
    auto sink = std::make_shared<KeepingSink>();
    std::weak_ptr<KeepingSink> const watched = sink;
    {
        Logger const sut("name", "", std::move(sink));
        ASSERT_FALSE(watched.expired());
    }

    EXPECT_TRUE(watched.expired());
}

TEST_F(LoggerSinkTest, StandardExceptionOfASinkIsDropped)
{
    auto const throwing = std::make_shared<ThrowingSink<std::runtime_error>>(std::runtime_error("disk full"));
    Logger const sut("name", "", throwing);
    proxy.setSink(throwing);

    EXPECT_NO_THROW(sut.tavroDoLog(Severity::Info, "text", {}));
    EXPECT_NO_THROW(tavroDoLog(Severity::Info, "text", {}));
}

TEST_F(LoggerSinkTest, AnyOtherExceptionOfASinkIsDropped)
{
    auto const throwing = std::make_shared<ThrowingSink<int>>(42);
    Logger const sut("name", "", throwing);
    proxy.setSink(throwing);

    EXPECT_NO_THROW(sut.tavroDoLog(Severity::Info, "text", {}));
    EXPECT_NO_THROW(tavroDoLog(Severity::Info, "text", {}));
}

TEST_F(LoggerSinkTest, LoggingGoesOnAfterASinkHasThrown)
{
    Logger const sut("name", "", std::make_shared<LoggerImpl>());
    proxy.setSink(std::make_shared<ThrowingSink<int>>(42));
    sut.tavroDoLog(Severity::Info, "lost", {});

    proxy.setSink(processWide);
    sut.tavroDoLog(Severity::Info, "kept", {});

    EXPECT_THAT(processWide->lines(), ElementsAre(LogLine{Severity::Info, "name", "kept"}));
}

TEST_F(LoggerSinkTest, ConcurrentCallsLoseNothingWhileSinkAndThresholdChange)
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
