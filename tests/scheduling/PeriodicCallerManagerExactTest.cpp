#include "scheduling/HeldCall.h"
#include "scheduling/HeldWhenCopied.h"
#include "scheduling/ManagerTest.h"
#include "scheduling/SchedulerSleep.h"
#include "support/WaitFor.h"

#include <gmock/gmock.h>

#include <atomic>
#include <future>
#include <memory>
#include <tuple>

namespace Halden::Tavro::Utils
{

namespace
{

using namespace std::chrono_literals;
using namespace testing;
using namespace TestSupport;

using Log::Severity;
using std::chrono::steady_clock;

using PeriodicCallerManagerExactTest = ManagerTest;

// kept: the item is in the list before its token asks who owns the manager
TEST_F(PeriodicCallerManagerExactTest, ManagerOnTheStackThrowsOnAddButKeepsTheItem)
{
    std::atomic<int> calls{0};
    PeriodicCallerManager sut(Strategy::Sequential, "sensors");
    SchedulerSleep::await();

    EXPECT_THROW(std::ignore = sut.add([&calls] { ++calls; }, 10ms), std::bad_weak_ptr);

    EXPECT_TRUE(hasBecome(calls, 3));
    EXPECT_EQ(log.count(trace("Item added. Having (1) now")), 1);
}

// kept: as above
TEST_F(PeriodicCallerManagerExactTest, ManagerInAUniquePointerThrowsOnAddButKeepsTheItem)
{
    std::atomic<int> calls{0};
    auto const sut = std::make_unique<PeriodicCallerManager>(Strategy::ThreadPool, "sensors");
    SchedulerSleep::await();

    EXPECT_THROW(std::ignore = sut->add([&calls] { ++calls; }, 10ms), std::bad_weak_ptr);

    EXPECT_TRUE(hasBecome(calls, 3));
}

// kept: requests are made without the wait mutex, so this one is not heard
TEST_F(PeriodicCallerManagerExactTest, RequestBetweenTheLastLookAndTheSleepIsServedAtTheNextDueTime)
{
    std::atomic<int> ticks{0};
    std::promise<steady_clock::time_point> called;
    steady_clock::time_point dueTime;
    Token late;
    auto sut = makeAsleep();
    Token ticking = sut->add([&] { ++ticks; }, 300ms);
    EXPECT_TRUE(hasBecome(ticks, 1));

    SchedulerSleep::beforeNext(
        [&]
        {
            dueTime = nextPcmDueTime(*sut);
            late = sut->add([&] { called.set_value(steady_clock::now()); }, longPeriod);
        });
    auto calledAt = called.get_future();

    EXPECT_TRUE(becomesReady(calledAt));
    EXPECT_GE(calledAt.get(), dueTime);
    end(ticking);
}

// kept: no change of the list delays the scheduler; that it may read what is being changed is the price
TEST_F(PeriodicCallerManagerExactTest, SchedulerScansItsListBesideAChangeInProgress)
{
    HeldCall function;
    HeldCall change;
    auto const passText = line(Severity::Trace, StartsWith("Executing (1) took"));
    auto sut = makeAsleep();
    Token const running = sut->add([&function] { function(); }, longPeriod);
    EXPECT_TRUE(function.awaitEntered());
    auto adding = std::async(std::launch::async, [&] { return sut->add(HeldWhenCopied(change), sixYears); });
    ASSERT_TRUE(change.awaitEntered());

    function.release();

    EXPECT_TRUE(log.waitFor(passText));
    change.release();
    Token const added = adding.get();
    SchedulerSleep::await();
}

}

}
