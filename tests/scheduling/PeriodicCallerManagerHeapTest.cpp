#include "scheduling/HeldCall.h"
#include "scheduling/ManagerTest.h"
#include "scheduling/SchedulerSleep.h"
#include "support/Resources.h"
#include "support/WaitFor.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <future>
#include <memory>
#include <vector>

namespace Halden::Tavro::Utils
{

namespace
{

using namespace std::chrono_literals;
using namespace testing;
using namespace TestSupport;

class PeriodicCallerManagerHeapTest : public ManagerTest
{
protected:
    /// With all but the texts at Trace, which are composed on the heap.
    PeriodicCallerManagerHeapTest() { Log::LoggerProxy::instance().setThreshold(Log::Severity::Debug); }
};

TEST_F(PeriodicCallerManagerHeapTest, SequentialPassAllocatesItsBatchOnly)
{
    constexpr int passesBefore = 50;
    constexpr int passes = 1000;
    int calls = 0; // on the scheduler thread alone
    std::size_t allocationsBefore = 0;
    std::size_t allocations = 0;
    std::vector<Token> tokens(100);
    std::promise<void> registered;
    std::promise<void> measured;
    auto const sut = makeAsleep();

    // A negative period makes an item part of every pass.
    tokens[0] = sut->add(
        [&]
        {
            ++calls;
            if (calls == 1)
            {
                becomesReady(registered.get_future(), 20s);
            }
            if (calls == passesBefore)
            {
                allocationsBefore = heapAllocations();
            }
            if (calls == passesBefore + passes)
            {
                allocations = heapAllocations() - allocationsBefore;
                tokens.clear(); // here, where the scheduler does not read its list
                measured.set_value();
            }
        },
        -1s);
    for (std::size_t i = 1; i < tokens.size(); ++i)
    {
        tokens[i] = sut->add([] {}, -1s);
    }
    log.expect(forbidden); // the rest of the last batch
    registered.set_value();
    ASSERT_TRUE(becomesReady(measured.get_future(), 20s));
    SchedulerSleep::await();

    EXPECT_GT(allocations, 0); // else nothing is counted
    EXPECT_LE(allocations, passes);
}

class PeriodicCallerManagerLeakTest : public PeriodicCallerManagerHeapTest, public testing::WithParamInterface<Strategy>
{
protected:
    /// Without the lines about every manager, which are captured on the heap.
    PeriodicCallerManagerLeakTest() { Log::LoggerProxy::instance().setThreshold(Log::Severity::Warning); }

    static void liveOnce()
    {
        std::atomic<int> calls{0};
        auto manager = makeAsleep(GetParam());
        Token const rare = manager->add([] {}, sixYears);
        SchedulerSleep::await();
        Token token = manager->add([&calls] { ++calls; }, 100ms);
        EXPECT_TRUE(waitFor([&] { return calls > 0; }));
        SchedulerSleep::await(50ms);
        token.reset();
        SchedulerSleep::await();
    }
};

INSTANTIATE_TEST_SUITE_P(Both, PeriodicCallerManagerLeakTest, bothStrategies(), nameOfStrategy);

TEST_P(PeriodicCallerManagerLeakTest, HundredManagersLeaveNothingBehind)
{
    liveOnce(); // what the system keeps for good
    auto const before = holdings();

    for (int i = 0; i < 100; ++i)
    {
        liveOnce();
    }

    EXPECT_TRUE(isBackTo(before));
}

}

}
