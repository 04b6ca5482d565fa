#pragma once

#include "scheduling/Strategies.h"
#include "support/LogCapture.h"
#include "support/SteadyClockDouble.h"

#include <utils/PeriodicCallerManager.h>

#include <gmock/gmock.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

/// What the tests of the manager share. For test programs that list scheduling/ManagerTest.cpp,
/// scheduling/SchedulerSleep.cpp and support/SteadyClockDouble.cpp among their sources.
namespace Halden::Tavro::TestSupport
{

constexpr auto logger = "Halden::Tavro::Utils::PeriodicCallerManager(sensors)";

/// How long the machine has been up when a test begins.
constexpr std::chrono::hours upTime{240};

/// Makes a fresh item due at once, and then not again while a test runs.
constexpr std::chrono::milliseconds longPeriod = std::chrono::hours(1);

/// A fresh item with one of these periods is due when the machine has been up for that long, so never in a test.
constexpr std::chrono::seconds threeYears{100'000'000};
constexpr std::chrono::seconds sixYears{200'000'000};
constexpr std::chrono::seconds thirtyYears{1'000'000'000};

std::chrono::milliseconds sinceBoot();
std::chrono::steady_clock::time_point afterBoot(std::chrono::steady_clock::duration time);

/// The operations of a manager that derived classes reach.
std::vector<std::shared_ptr<Utils::PcmItemIfc>> dueUntil(Utils::PeriodicCallerManager& manager,
                                                         std::chrono::steady_clock::time_point until);
std::chrono::steady_clock::time_point nextPcmDueTime(Utils::PeriodicCallerManager& manager);
void updateSchedulerNextDueTime(Utils::PeriodicCallerManager& manager);

testing::Matcher<LogLine const&> line(Log::Severity severity, testing::Matcher<std::string const&> const& text);
testing::Matcher<LogLine const&> trace(testing::Matcher<std::string const&> const& text);

/// What add() logs. Its "%lu" shows the low bits alone where `unsigned long` has 32.
std::string addingText(long long periodInMs);

/// A manager whose scheduler sleeps.
std::shared_ptr<Utils::PeriodicCallerManager> makeAsleep(Strategy strategy = Strategy::Sequential,
                                                         std::string const& name = "sensors");

class ManagerTest : public testing::Test
{
protected:
    ManagerTest();

    /// Registers a function while the scheduler sleeps, for a request just before its sleep would get lost.
    static Token addAsleep(Utils::PeriodicCallerManager& manager, std::function<void()> function,
                           std::chrono::duration<double> period);

    /// The manager's own lines so far, without what the scheduler logged after the given number.
    std::vector<LogLine> firstLines(std::size_t count) const;

    /// Registers a function that ends its registration in its n-th call: there the scheduler does not read its list.
    static void runTimes(int times, Utils::PeriodicCallerManager& manager, std::chrono::duration<double> period);

    /// Ends the registration of a function with a period of a tenth of a second or more while the scheduler sleeps.
    void end(Token& token);

    static bool hasBecome(std::atomic<int> const& calls, int count);

    SteadyClockDouble clock{upTime};
    LogCapture log;
    testing::Matcher<LogLine const&> const forbidden = isLine(Log::Severity::Warning, "Halden::Tavro::Utils::PcmItem",
                                                              std::string("Execution of PCM item is forbidden"));
};

class ManagerStrategyTest : public ManagerTest, public testing::WithParamInterface<Strategy>
{
};

}
