#include <utils/testing/BarrierGuard.h>

#include "support/SteadyClockDouble.h"
#include "support/WaitFor.h"

#include <gmock/gmock.h>

#include <future>
#include <memory>
#include <stdexcept>

namespace Halden::Tavro::Utils::Testing
{

namespace
{

using namespace std::chrono_literals;
using namespace testing;
using TestSupport::becomesReady;

class BarrierGuardTest : public Test
{
protected:
    /// A thread that comes to the monitor. @return what crossBarrier() has returned
    std::future<bool> comeToTheMonitor()
    {
        return std::async(std::launch::async,
                          [this]
                          {
                              monitor.setArgument("sum", 3ULL);
                              return monitor.crossBarrier();
                          });
    }

    static bool isDone(std::future<bool> const& thread) { return becomesReady(thread, 20s); }

    CodeMonitor monitor{"work"};
};

TEST_F(BarrierGuardTest, HoldsTheThreadThatComesWithItsValues)
{
    std::future<bool> thread;
    BarrierGuard sut(monitor);

    thread = comeToTheMonitor();

    ASSERT_TRUE(sut.waitTrapped());
    EXPECT_EQ(monitor.getArgument("sum").value.uint64, 3);
    EXPECT_FALSE(becomesReady(thread, 0s));
    EXPECT_TRUE(sut.release());
    ASSERT_TRUE(isDone(thread));
    EXPECT_TRUE(thread.get());
}

TEST_F(BarrierGuardTest, LetsTheThreadGoAtItsEnd)
{
    std::future<bool> thread;
    {
        BarrierGuard sut(monitor);
        thread = comeToTheMonitor();
        EXPECT_TRUE(sut.waitTrapped());
    }

    ASSERT_TRUE(isDone(thread));
    EXPECT_TRUE(thread.get());
}

TEST_F(BarrierGuardTest, LetsTheThreadGoWhenTheTestThrows)
{
    std::future<bool> thread;

    EXPECT_THROW(
        {
            BarrierGuard sut(monitor);
            thread = comeToTheMonitor();
            EXPECT_TRUE(sut.waitTrapped());
            throw std::runtime_error("the test goes wrong");
        },
        std::runtime_error);

    EXPECT_TRUE(isDone(thread));
}

TEST_F(BarrierGuardTest, WithoutAThreadItWaitsForTheLimitAndReleasesNone)
{
    BarrierGuard sut(monitor);
    auto const begin = std::chrono::steady_clock::now();

    EXPECT_FALSE(sut.waitTrapped(60ms));

    EXPECT_GE(std::chrono::steady_clock::now() - begin, 60ms);
    EXPECT_FALSE(sut.release());
}

TEST_F(BarrierGuardTest, LooksForAThreadUntilTheLimitIsReached)
{
    BarrierGuard sut(monitor);
    TestSupport::SteadyClockDouble clock(1h);
    clock.advanceWithEachReading(50ms);

    EXPECT_FALSE(sut.waitTrapped(100ms));

    EXPECT_EQ(clock.readings(), 3); // at the begin, before the limit, at the limit
}

TEST_F(BarrierGuardTest, OpenedBarrierIsLeftOpenAtTheEnd)
{
    {
        BarrierGuard sut(monitor);
        sut.release();

        EXPECT_THAT([&] { sut.release(); }, ThrowsMessage<std::runtime_error>(StrEq("Barrier is not closed")));
    }

    EXPECT_FALSE(monitor.crossBarrier());
}

TEST_F(BarrierGuardTest, SecondGuardOfAMonitorIsRefusedAndTheFirstGoesOn)
{
    BarrierGuard first(monitor);

    EXPECT_THAT([&] { BarrierGuard const second(monitor); },
                ThrowsMessage<std::runtime_error>(StrEq("Barrier already closed")));

    EXPECT_FALSE(first.release()); // it was still closed
}

}

}
