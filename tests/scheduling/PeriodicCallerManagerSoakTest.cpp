#include "scheduling/ManagerTest.h"
#include "scheduling/SchedulerSleep.h"
#include "support/WaitFor.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

namespace Halden::Tavro::Utils
{

namespace
{

using namespace std::chrono_literals;
using namespace TestSupport;

using PeriodicCallerManagerSoakTest = ManagerStrategyTest;

INSTANTIATE_TEST_SUITE_P(Both, PeriodicCallerManagerSoakTest, bothStrategies(), nameOfStrategy);

TEST_P(PeriodicCallerManagerSoakTest, HundredAddsAndRemovesASecondBesideRunningFunctions)
{
    constexpr int changes = 2000;
    constexpr auto between = 10ms;
    Log::LoggerProxy::instance().setThreshold(Log::Severity::Warning);
    std::atomic<int> steadyCalls{0};
    auto sut = makeAsleep(GetParam());
    Token const rare = sut->add([] {}, sixYears);
    SchedulerSleep::await();
    Token steadyTwenty = sut->add([&] { ++steadyCalls; }, 20ms);
    Token steadyFifty = sut->add([&] { ++steadyCalls; }, 50ms);
    auto const begin = std::chrono::steady_clock::now();

    int missed = 0;
    for (int i = 0; i < changes; ++i)
    {
        std::atomic<int> calls{0};
        Token token = sut->add([&calls] { ++calls; }, longPeriod);
        std::this_thread::sleep_until(begin + i * between);
        missed += waitFor([&calls] { return calls > 0; }) ? 0 : 1;
        SchedulerSleep::await(1ms); // an item taken off the list during a scan is beyond what the manager promises
        token.reset();
    }
    auto const elapsed = std::chrono::steady_clock::now() - begin;
    SchedulerSleep::await(10ms);
    steadyTwenty.reset();
    SchedulerSleep::await(30ms);
    steadyFifty.reset();
    SchedulerSleep::await();

    EXPECT_EQ(missed, 0);
    EXPECT_GE(steadyCalls, elapsed / 20ms / 4); // far behind would mean that it had stalled
}

}

}
