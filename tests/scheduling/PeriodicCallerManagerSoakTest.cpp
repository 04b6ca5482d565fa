#include "scheduling/SchedulerSleep.h"
#include "support/LogCapture.h"
#include "support/WaitFor.h"

#include <utils/PeriodicCallerManager.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <thread>

using namespace Halden::Tavro;
using namespace Halden::Tavro::TestSupport;
using namespace Halden::Tavro::Utils;
using namespace std::chrono_literals;

namespace
{

using Strategy = PeriodicCallerManager::ExecutionStrategy;
using Token = std::unique_ptr<PeriodicCallerManagerTokenIfc>;

class PeriodicCallerManagerSoakTest : public testing::TestWithParam<Strategy>
{
};

INSTANTIATE_TEST_SUITE_P(Both, PeriodicCallerManagerSoakTest,
                         testing::Values(Strategy::ThreadPool, Strategy::Sequential),
                         [](auto const& strategy)
                         { return strategy.param == Strategy::ThreadPool ? "ThreadPool" : "Sequential"; });

TEST_P(PeriodicCallerManagerSoakTest, HundredAddsAndRemovesASecondBesideRunningFunctions)
{
    constexpr int changes = 2000;
    constexpr auto between = 10ms;
    LogCapture const log(Log::Severity::Warning);
    std::atomic<int> steadyCalls{0};
    auto sut = std::make_shared<PeriodicCallerManager>(GetParam(), "sensors");
    SchedulerSleep::await(); // a request just before the sleep would get lost
    Token const rare = sut->add([] {}, std::chrono::seconds(200'000'000));
    SchedulerSleep::await();
    Token steadyTwenty = sut->add([&] { ++steadyCalls; }, 20ms);
    Token steadyFifty = sut->add([&] { ++steadyCalls; }, 50ms);
    auto const begin = std::chrono::steady_clock::now();

    int missed = 0;
    for (int i = 0; i < changes; ++i)
    {
        std::atomic<int> calls{0};
        Token token = sut->add([&calls] { ++calls; }, 1h);
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
