#include "metrics/Figures.h"

#include <utils/metrics/MeasuredManager.h>
#include <utils/testing/LogCaptureGmock.h>
#include <utils/testing/ManualTimeManager.h>

#include <gmock/gmock.h>

#include <prometheus/gauge.h>
#include <prometheus/text_serializer.h>

#include <chrono>
#include <cmath>
#include <memory>
#include <stdexcept>
#include <string>
#include <tuple>
#include <vector>

namespace Halden::Tavro::Utils::Metrics
{

namespace
{

using namespace TestSupport;
using namespace std::chrono_literals;
using namespace testing;

auto throwsInvalidArgument(std::string const& text)
{
    return ThrowsMessage<std::invalid_argument>(StrEq(text));
}

class MeasuredManagerNamesTest : public Test
{
protected:
    std::shared_ptr<Testing::ManualTimeManager> const manager = std::make_shared<Testing::ManualTimeManager>();
    std::shared_ptr<prometheus::Registry> const registry = std::make_shared<prometheus::Registry>();
    MeasuredManager sut{manager, registry};
};

TEST_F(MeasuredManagerNamesTest, MetricsBeginWithThePrefixAndTellOfTheFunctionInALabel)
{
    MeasuredManager other(manager, registry, "sensor");
    auto const token = sut.add(
        "read \"pressure\"", [] {}, 1s);
    auto const otherToken = other.add(
        "read", [] {}, 1s);

    manager->advance(0ms);

    auto const text = prometheus::TextSerializer().Serialize(registry->Collect());
    EXPECT_THAT(text, HasSubstr("\nperiodic_function_runs_total{function=\"read \\\"pressure\\\"\"} 1\n"));
    EXPECT_THAT(text, HasSubstr("\n# TYPE periodic_function_run_time_seconds histogram\n"));
    EXPECT_THAT(text, HasSubstr("\nsensor_failures_total{function=\"read\"} 0\n"));
}

TEST_F(MeasuredManagerNamesTest, PrefixThatPrometheusRefusesIsRefused)
{
    for (std::string const prefix : {"", "1st", "a b", "a-b", "\xc3\xa4"})
    {
        EXPECT_THAT([&] { MeasuredManager(manager, registry, prefix); },
                    throwsInvalidArgument("Prometheus refuses names of metrics that begin with '" + prefix + "'"));
    }
    EXPECT_NO_THROW(MeasuredManager(manager, registry, "device:sensor_1"));
}

TEST_F(MeasuredManagerNamesTest, ManagerAndRegistryMustBeThere)
{
    EXPECT_THAT([&] { MeasuredManager(nullptr, registry); }, throwsInvalidArgument("There must be a manager"));
    EXPECT_THAT([&] { MeasuredManager(manager, nullptr); }, throwsInvalidArgument("There must be a registry"));
}

TEST_F(MeasuredManagerNamesTest, MetricOfAnotherKindIsRefused)
{
    prometheus::BuildGauge().Name("pump_runs_total").Register(*registry);

    EXPECT_THROW(MeasuredManager(manager, registry, "pump"), std::invalid_argument);
}

TEST_F(MeasuredManagerNamesTest, EmptyNameIsRefused)
{
    EXPECT_THAT(
        [&]
        {
            std::ignore = sut.add(
                "", [] {}, 1s);
        },
        throwsInvalidArgument("A function's name must not be empty: Prometheus takes an empty label for none"));
}

TEST_F(MeasuredManagerNamesTest, NameThatIsNoUtf8IsRefusedAndLeavesNothing)
{
    std::vector<std::string> const names{
        "\x80", // goes on without a start
        "a\xc3",
        "\xe2\x82",
        "\xf0\x9f\x98", // end within a character
        "\xc3(",
        "\xe2(\xa1",
        "\xe2\x82(",
        "\xf0(\x98\x80",
        "\xf0\x9f\x98(", // do not go on
        "\xc0\xaf",
        "\xc1\xbf",
        "\xe0\x9f\xbf",
        "\xf0\x8f\xbf\xbf", // longer than need be
        "\xed\xa0\x80",     // a surrogate
        "\xf4\x90\x80\x80",
        "\xf5\x80\x80\x80",
        "\xff", // beyond Unicode
    };
    for (auto const& name : names)
    {
        EXPECT_THAT(
            [&]
            {
                std::ignore = sut.add(
                    name, [] {}, 1s);
            },
            throwsInvalidArgument("A function's name must be UTF-8: Prometheus refuses all figures otherwise"))
            << PrintToString(name);
        EXPECT_FALSE(figures(*registry, "periodic_function_runs_total", name));
    }
}

TEST_F(MeasuredManagerNamesTest, AnyOtherTextIsAName)
{
    for (std::string const name : {"a", "with blanks - and + signs", "\x7f", "\xc2\x80", "\xdf\xbf", "\xe0\xa0\x80",
                                   "\xe1\x80\x80", "\xec\xbf\xbf", "\xed\x9f\xbf", "\xee\x80\x80", "\xef\xbf\xbf",
                                   "\xf0\x90\x80\x80", "\xf1\x80\x80\x80", "\xf3\xbf\xbf\xbf", "\xf4\x8f\xbf\xbf z"})
    {
        auto const token = sut.add(
            name, [] {}, 1s);

        manager->advance(0ms);

        EXPECT_EQ(valueOf(*registry, "periodic_function_runs_total", name), 1);
    }
}

TEST_F(MeasuredManagerNamesTest, NameIsTakenWhileItsFunctionIsThere)
{
    auto token = sut.add(
        "pump", [] {}, 1s);
    manager->advance(0ms);

    EXPECT_THAT(
        [&]
        {
            std::ignore = sut.add(
                "pump", [] {}, 1s);
        },
        throwsInvalidArgument("There is a function named 'pump' already"));
    token.reset();
    token = sut.add(
        "pump", [] {}, 1s);
    manager->advance(0ms);

    EXPECT_EQ(valueOf(*registry, "periodic_function_runs_total", "pump"), 2); // they go on
}

TEST_F(MeasuredManagerNamesTest, NameIsFreeAgainWhenTheManagerRefusesTheFunction)
{
    Testing::StrictLogCapture log;
    log.expect(Testing::isLine(Log::Severity::Error, _, HasSubstr("minimum period")));

    for (double const seconds : {0.0, std::nan("")})
    {
        EXPECT_THAT(
            [&]
            {
                std::ignore = sut.add(
                    "pump", [] {}, std::chrono::duration<double>(seconds));
            },
            throwsInvalidArgument("Period must be greater than zero milliseconds"));
    }

    EXPECT_NO_THROW(std::ignore = sut.add(
                        "pump", [] {}, std::chrono::duration<double>(1e300)));
}

TEST_F(MeasuredManagerNamesTest, ManagersThatShareARegistryShareItsNames)
{
    MeasuredManager other(manager, registry);
    auto const token = sut.add(
        "pump", [] {}, 1s);

    EXPECT_THAT(
        [&]
        {
            std::ignore = other.add(
                "pump", [] {}, 1s);
        },
        throwsInvalidArgument("The registry has figures of a function named 'pump' already"));
    EXPECT_NO_THROW(std::ignore = other.add(
                        "valve", [] {}, 1s));
}

TEST_F(MeasuredManagerNamesTest, CodeThatAddsWithoutANameGetsTheGivenOne)
{
    auto const clock = sut.named("clock");
    auto token = clock->add([] {}, 1s);
    manager->advance(1s);

    EXPECT_EQ(valueOf(*registry, "periodic_function_runs_total", "clock"), 2);
    EXPECT_THAT([&] { std::ignore = clock->add([] {}, 1s); },
                throwsInvalidArgument("There is a function named 'clock' already"));
    EXPECT_THAT(
        [&]
        {
            std::ignore = sut.add(
                "clock", [] {}, 1s);
        },
        throwsInvalidArgument("There is a function named 'clock' already"));
    token.reset();
    EXPECT_NO_THROW(std::ignore = clock->add([] {}, 1s));
}

TEST_F(MeasuredManagerNamesTest, NameForCodeThatAddsWithoutOneIsCheckedAtOnce)
{
    EXPECT_THROW(sut.named(""), std::invalid_argument);
    EXPECT_THROW(sut.named("\xff"), std::invalid_argument);
}

TEST_F(MeasuredManagerNamesTest, ManagerOfANameOutlivesTheMeasuringOne)
{
    auto const clock = std::make_unique<MeasuredManager>(manager, registry, "other")->named("clock");

    auto const token = clock->add([] {}, 1s);
    manager->advance(0ms);

    EXPECT_EQ(valueOf(*registry, "other_runs_total", "clock"), 1);
}

}

}
