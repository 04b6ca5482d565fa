#include "metrics/CapturingManager.h"
#include "metrics/Figures.h"
#include "scheduling/HeldCall.h"
#include "support/WaitFor.h"

#include <utils/metrics/MeasuredManager.h>
#include <utils/testing/LogCaptureGmock.h>
#include <utils/testing/ManualTimeManager.h>

#include <gmock/gmock.h>

#include <chrono>
#include <future>
#include <limits>
#include <memory>
#include <stdexcept>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

namespace Halden::Tavro::Utils::Metrics
{

namespace
{

using namespace TestSupport;
using namespace std::chrono_literals;
using namespace testing;
using Log::Severity;
using std::chrono::milliseconds;
using Testing::isLine;
using Token = std::unique_ptr<PeriodicCallerManagerTokenIfc>;

double unixTime()
{
    return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

class MeasuredManagerTest : public Test
{
protected:
    double value(std::string const& metric, std::string const& function) const
    {
        return valueOf(*registry, "sensor_" + metric, function);
    }

    /// How many values the function's histogram has in the bucket that ends with that bound.
    std::uint64_t countIn(std::string const& histogram, std::string const& function, double upperBound) const
    {
        return countInBucket(*registry, "sensor_" + histogram, function, upperBound);
    }

    prometheus::ClientMetric::Histogram histogram(std::string const& histogram, std::string const& function) const
    {
        return figures(*registry, "sensor_" + histogram, function).value().histogram;
    }

    MeasuredManager measure(std::shared_ptr<PeriodicCallerManagerIfc> const& beneath) const
    {
        return {beneath, registry, "sensor", [manager = manager] { return manager->now(); }};
    }

    Testing::StrictLogCapture log;
    std::shared_ptr<Testing::ManualTimeManager> manager = std::make_shared<Testing::ManualTimeManager>();
    std::shared_ptr<prometheus::Registry> registry = std::make_shared<prometheus::Registry>();
    MeasuredManager sut = measure(manager);
};

TEST_F(MeasuredManagerTest, CountsTheRunsOfEachFunction)
{
    auto const quick = sut.add(
        "quick", [] {}, 100ms);
    auto const slow = sut.add(
        "slow", [] {}, 1s);

    manager->advance(1s);

    EXPECT_EQ(value("runs_total", "quick"), 11);
    EXPECT_EQ(value("runs_total", "slow"), 2);
    EXPECT_EQ(value("failures_total", "quick"), 0);
}

TEST_F(MeasuredManagerTest, CountsExceptionsOfAnyKindWhichTheManagerLogs)
{
    auto const logged = isLine(Severity::Error, "Halden::Tavro::Utils::PcmItem",
                               StartsWith("PcmItem execution threw exception. Exception: no answer."));
    log.expect(logged);
    int calls = 0;
    auto const token = sut.add(
        "failing",
        [&calls]
        {
            switch (++calls)
            {
            case 1:
                throw std::runtime_error("no answer");
            case 2:
                throw calls;
            default:
                return;
            }
        },
        1s);

    manager->advance(2s);

    EXPECT_EQ(value("runs_total", "failing"), 3);
    EXPECT_EQ(value("failures_total", "failing"), 2);
    EXPECT_EQ(log.count(logged), 1);
}

TEST_F(MeasuredManagerTest, LatenessFallsIntoItsBucket)
{
    std::vector<std::pair<milliseconds, double>> const cases{
        {0ms, 0.0001}, {1ms, 0.001}, {10ms, 0.01}, {100ms, 0.1}, {20s, std::numeric_limits<double>::infinity()}};
    for (auto const& [lateness, bucket] : cases)
    {
        std::string const name = std::to_string(lateness.count());
        auto const slow = manager->add([this, lateness = lateness] { manager->spend(lateness); }, 1h);
        auto const token = sut.add(
            name, [] {}, 1h);

        manager->advance(0ms);

        EXPECT_EQ(histogram("lateness_seconds", name).sample_count, 1) << name;
        EXPECT_EQ(countIn("lateness_seconds", name, bucket), 1) << name;
    }
}

TEST_F(MeasuredManagerTest, BucketsGoFromATenthOfAMillisecondToTenSeconds)
{
    auto const token = sut.add(
        "any", [] {}, 1h);

    for (char const* const name : {"lateness_seconds", "run_time_seconds"})
    {
        std::vector<double> bounds;
        for (auto const& bucket : histogram(name, "any").bucket)
        {
            bounds.push_back(bucket.upper_bound);
        }
        EXPECT_THAT(bounds, ElementsAre(0.0001, 0.0002, 0.0005, 0.001, 0.002, 0.005, 0.01, 0.02, 0.05, 0.1, 0.2, 0.5, 1,
                                        2, 5, 10, std::numeric_limits<double>::infinity()))
            << name;
    }
}

TEST_F(MeasuredManagerTest, LateStartMovesTheTimeAtWhichTheNextOneIsDue)
{
    milliseconds runTime{30};
    auto const slow = manager->add([&] { manager->spend(runTime); }, 1s);
    auto const token = sut.add(
        "late", [] {}, 1s);
    manager->advance(0ms);

    runTime = 0ms;
    manager->advance(1s);

    EXPECT_EQ(value("runs_total", "late"), 2);
    EXPECT_EQ(countIn("lateness_seconds", "late", 0.05), 1);
    EXPECT_EQ(countIn("lateness_seconds", "late", 0.0001), 1);
}

TEST_F(MeasuredManagerTest, PeriodCountsInWholeMillisecondsAsItDoesInTheManager)
{
    auto const token = sut.add(
        "punctual", [] {}, 2.9s / 1000);

    manager->advance(20ms);

    EXPECT_EQ(value("runs_total", "punctual"), 11);
    EXPECT_EQ(histogram("lateness_seconds", "punctual").sample_sum, 0);
}

TEST_F(MeasuredManagerTest, FunctionThatWaitsUntilTheMachineIsUpForItsPeriodIsNotLate)
{
    manager = std::make_shared<Testing::ManualTimeManager>("", 1s);
    auto freshlyBooted = measure(manager);
    auto const token = freshlyBooted.add(
        "first", [] {}, 10s);

    manager->advance(9s);

    EXPECT_EQ(countIn("lateness_seconds", "first", 0.0001), 1);
}

TEST_F(MeasuredManagerTest, FunctionWithANegativePeriodIsMeasuredFromItsLastStart)
{
    auto const token = sut.add(
        "always", [&] { manager->spend(10ms); }, -1s);

    manager->advance(10ms);

    EXPECT_EQ(value("runs_total", "always"), 2);
    EXPECT_EQ(countIn("lateness_seconds", "always", 0.01), 1);
}

TEST_F(MeasuredManagerTest, ManagerThatCallsEarlyMakesNoNegativeLateness)
{
    auto const capturing = std::make_shared<CapturingManager>();
    auto const token = measure(capturing).add(
        "early", [] {}, 1h);

    capturing->function();
    capturing->function();

    EXPECT_EQ(countIn("lateness_seconds", "early", 0.0001), 2);
    EXPECT_EQ(histogram("lateness_seconds", "early").sample_sum, 0);
}

TEST_F(MeasuredManagerTest, RunTimeFallsIntoItsBucketAlsoWhenTheRunFails)
{
    log.expect(isLine(Severity::Error, "Halden::Tavro::Utils::PcmItem", HasSubstr("no answer")));
    auto const good = sut.add(
        "good", [&] { manager->spend(20ms); }, 1h);
    auto const bad = sut.add(
        "bad",
        [&]
        {
            manager->spend(3s);
            throw std::runtime_error("no answer");
        },
        1h);

    manager->advance(0ms);

    EXPECT_EQ(countIn("run_time_seconds", "good", 0.02), 1);
    EXPECT_EQ(countIn("run_time_seconds", "bad", 5), 1);
}

TEST_F(MeasuredManagerTest, TellsSinceWhenAFunctionIsRunning)
{
    log.expect(isLine(Severity::Error, "Halden::Tavro::Utils::PcmItem", HasSubstr("no answer")));
    std::vector<double> during;
    auto const token = sut.add(
        "sometimes",
        [&]
        {
            during.push_back(value("running_since_timestamp_seconds", "sometimes"));
            throw std::runtime_error("no answer");
        },
        1h);
    double const begin = unixTime();

    manager->advance(0ms);

    EXPECT_THAT(during, ElementsAre(AllOf(Ge(begin), Le(unixTime()))));
    EXPECT_EQ(value("running_since_timestamp_seconds", "sometimes"), 0);
}

TEST_F(MeasuredManagerTest, ShowsAFunctionThatIsStuckToOtherThreads)
{
    HeldCall held;
    auto const token = sut.add(
        "stuck", [&held] { held(); }, 1h);
    auto const advancing = std::async(std::launch::async, [this] { manager->advance(0ms); });
    ASSERT_TRUE(held.awaitEntered());

    EXPECT_GT(value("running_since_timestamp_seconds", "stuck"), 0);
    EXPECT_EQ(value("runs_total", "stuck"), 0);
    held.release();
    ASSERT_TRUE(becomesReady(advancing));

    EXPECT_EQ(value("running_since_timestamp_seconds", "stuck"), 0);
    EXPECT_EQ(value("runs_total", "stuck"), 1);
}

TEST_F(MeasuredManagerTest, FiguresStayWhenTheFunctionHasGone)
{
    auto token = sut.add(
        "short", [] {}, 1s);
    manager->advance(1s);

    token.reset();
    manager->advance(10s);

    EXPECT_EQ(value("runs_total", "short"), 2);
}

TEST_F(MeasuredManagerTest, TokenMayBeDestroyedInsideItsOwnFunction)
{
    Token token;
    token = sut.add(
        "once", [&token] { token.reset(); }, 1ms);

    manager->advance(10ms);

    EXPECT_EQ(value("runs_total", "once"), 1);
}

TEST_F(MeasuredManagerTest, EmptyFunctionIsAFailure)
{
    log.expect(isLine(Severity::Error, "Halden::Tavro::Utils::PcmItem", _));
    auto const token = sut.add("empty", nullptr, 1h);

    manager->advance(0ms);

    EXPECT_EQ(value("failures_total", "empty"), 1);
}

TEST_F(MeasuredManagerTest, GoesByTheSteadyClockUnlessItIsGivenAnother)
{
    auto const capturing = std::make_shared<CapturingManager>();
    MeasuredManager measured(capturing, registry, "sensor");
    auto const begin = std::chrono::steady_clock::now();
    auto const token = measured.add(
        "real", [] {}, 1ms);

    capturing->function();

    double const elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    double const lateness = histogram("lateness_seconds", "real").sample_sum;
    double const runTime = histogram("run_time_seconds", "real").sample_sum;
    EXPECT_GT(lateness, 0);
    EXPECT_GT(runTime, 0);
    EXPECT_LE(lateness + runTime, elapsed * 1.000001);
}

/// Passes functions on and keeps a copy of the last one.
class KeepingManager : public PeriodicCallerManagerIfc
{
public:
    KeepingManager(std::function<void()>& kept, std::shared_ptr<PeriodicCallerManagerIfc> next)
        : kept(kept)
        , next(std::move(next))
    {
    }

    Token add(std::function<void()> function, std::chrono::duration<double> period) override
    {
        kept = function;
        return next->add(std::move(function), period);
    }

private:
    std::function<void()>& kept;
    std::shared_ptr<PeriodicCallerManagerIfc> const next;
};

/// A scheduler lets go of a removed function late. If that were the last to hold the manager, the scheduler's thread
/// would have to wait for itself.
TEST_F(MeasuredManagerTest, FunctionThatIsStillKeptHoldsTheFiguresButNotTheManager)
{
    std::function<void()> kept;
    std::weak_ptr<PeriodicCallerManagerIfc> watched;
    {
        auto const keeping = std::make_shared<KeepingManager>(kept, manager);
        watched = keeping;
        MeasuredManager measured(keeping, std::make_shared<prometheus::Registry>());
        std::ignore = measured.add(
            "kept", [] {}, 1s);
    }

    EXPECT_TRUE(watched.expired());
    kept(); // its registry is still there
}

}

}
