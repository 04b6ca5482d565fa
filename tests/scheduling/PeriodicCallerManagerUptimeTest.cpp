#include "scheduling/ManagerTest.h"
#include "scheduling/SchedulerSleep.h"
#include "support/WaitFor.h"

#include <gmock/gmock.h>

#include <atomic>
#include <chrono>
#include <future>
#include <string>
#include <tuple>
#include <vector>

namespace Halden::Tavro::Utils
{

namespace
{

using namespace std::chrono_literals;
using namespace testing;
using namespace TestSupport;

using std::chrono::milliseconds;
using std::chrono::steady_clock;

using PeriodicCallerManagerUptimeTest = ManagerTest;

TEST_F(PeriodicCallerManagerUptimeTest, FreshItemWaitsUntilTheMachineHasBeenUpForItsPeriod)
{
    std::promise<steady_clock::time_point> called;
    auto calledAt = called.get_future();
    clock.set(2s);
    clock.goOn();
    auto sut = makeAsleep();

    Token const token = sut->add([&called] { called.set_value(steady_clock::now()); }, 2300ms);

    ASSERT_TRUE(becomesReady(calledAt));
    EXPECT_GE(calledAt.get().time_since_epoch(), 2300ms);
    SchedulerSleep::await(1s);
}

struct NamedUptime
{
    char const* name;
    milliseconds time;
};

/// Calls go on while the clock passes the border of some width.
class PeriodicCallerManagerBorderTest : public ManagerTest, public WithParamInterface<std::tuple<Strategy, NamedUptime>>
{
};

INSTANTIATE_TEST_SUITE_P(Of, PeriodicCallerManagerBorderTest,
                         Combine(bothStrategies(), Values(NamedUptime{"AMinute", 1min},
                                                          NamedUptime{"MillisecondsOf31Bits", milliseconds(1LL << 31)},
                                                          NamedUptime{"MillisecondsOf32Bits", milliseconds(1LL << 32)},

                                                          NamedUptime{"ThreeYears", 26'280h})),
                         [](auto const& test) {
                             return nameOfStrategy({std::get<0>(test.param), 0}) + std::get<1>(test.param).name;
                         });

TEST_P(PeriodicCallerManagerBorderTest, FunctionIsCalledAtItsPeriodAroundThatUptime)
{
    auto const [strategy, uptime] = GetParam();
    steady_clock::time_point const border(uptime.time);
    std::vector<steady_clock::time_point> starts; // in calls that exclude each other, then read after their end
    std::promise<Token> handed;
    std::promise<void> ended;
    clock.set(uptime.time - 100ms); // and there it stands until the first call, however late that is
    auto sut = makeAsleep(strategy);

    handed.set_value(sut->add(
        [&]
        {
            starts.push_back(steady_clock::now());
            if (starts.size() == 1)
            {
                clock.goOn();
            }
            if (starts.back() > border + 100ms)
            {
                handed.get_future().get().reset();
                ended.set_value();
            }
        },
        20ms));

    ASSERT_TRUE(becomesReady(ended.get_future()));
    SchedulerSleep::await();
    EXPECT_EQ(starts.front(), border - 100ms);
    EXPECT_GE(starts.size(), 2U);
    EXPECT_LE(starts.size(), (starts.back() - starts.front()) / 20ms + 2);
}

}

}
