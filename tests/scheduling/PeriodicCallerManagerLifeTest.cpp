#include "scheduling/ManagerTest.h"
#include "scheduling/SchedulerSleep.h"
#include "support/OtherThreads.h"
#include "support/Resources.h"
#include "support/VirtualSlot.h"
#include "support/WaitFor.h"

#include <gmock/gmock.h>

#include <pthread.h>

#include <atomic>
#include <cstddef>
#include <future>
#include <memory>
#include <stdexcept>
#include <string>
#include <type_traits>

namespace Halden::Tavro::Utils
{

namespace
{

using namespace std::chrono_literals;
using namespace testing;
using namespace TestSupport;

using Log::Severity;

using PeriodicCallerManagerLifeTest = ManagerTest;
using PeriodicCallerManagerLifeStrategyTest = ManagerStrategyTest;

INSTANTIATE_TEST_SUITE_P(Both, PeriodicCallerManagerLifeStrategyTest, bothStrategies(), nameOfStrategy);

/// Those that stay: one that the test before has joined is listed a moment longer.
std::size_t threadsAtRest()
{
    OtherThreads::awaitRest();
    return runningThreads();
}

/// Gives the manager a logger of its own name. Only compiled, see ManagerTest.cpp for why none is made.
struct ServiceManager : PeriodicCallerManager
{
    ServiceManager()
        : Log::Logger("service manager", "", std::make_shared<Log::LoggerImpl>())
        , PeriodicCallerManager(Strategy::Sequential, "sensors")
    {
    }
};

TEST_F(PeriodicCallerManagerLifeTest, OperationsHaveTheirSlotsBehindTheDestructor)
{
    EXPECT_EQ(virtualSlot(&PeriodicCallerManagerIfc::add), 2);
    EXPECT_EQ(virtualSlot(&PcmTokenToManagerIfc::remove), 0);
    EXPECT_EQ(virtualSlot(&PeriodicCallerManager::add), 2);
    EXPECT_EQ(virtualSlot(&PeriodicCallerManager::remove), 3);
}

TEST_F(PeriodicCallerManagerLifeTest, IsNoLoggerToOthersAndNamedByItsHeirs)
{
    EXPECT_TRUE((std::is_base_of_v<Log::Logger, PeriodicCallerManager>));
    EXPECT_FALSE((std::is_convertible_v<PeriodicCallerManager*, Log::Logger*>));
    EXPECT_TRUE(std::is_default_constructible_v<ServiceManager>);
}

TEST_F(PeriodicCallerManagerLifeTest, EmptyManagerLogsItsStartAndItsEnd)
{
    auto sut = makeAsleep();

    sut.reset();

    EXPECT_THAT(log.linesOf(logger),
                ElementsAre(line(Severity::Info, "+schedulerThread: starting"), trace("dueInPeriod: (0) items"),
                            line(Severity::Info, "stop requested: leaving wait"),
                            line(Severity::Info, "-schedulerThread: exiting without error")));
}

// kept: brackets without a name in them; what reads the log looks for them
TEST_F(PeriodicCallerManagerLifeTest, LoggerOfAnUnnamedManagerKeepsItsBrackets)
{
    makeAsleep(Strategy::Sequential, "").reset();

    EXPECT_EQ(log.count(isLine(Severity::Info, "Halden::Tavro::Utils::PeriodicCallerManager()",
                               std::string("+schedulerThread: starting"))),
              1);
}

TEST_F(PeriodicCallerManagerLifeTest, StopBeforeTheFirstPassLeavesNoWait)
{
    std::promise<void> starting;
    std::promise<void> goOn;
    log.onLine(
        [&](LogLine const& logged)
        {
            if (logged.text == "+schedulerThread: starting")
            {
                starting.set_value();
                becomesReady(goOn.get_future(), 20s);
            }
        });
    auto sut = std::make_shared<PeriodicCallerManager>(Strategy::Sequential, "sensors");
    ASSERT_TRUE(becomesReady(starting.get_future()));
    std::size_t const requestsBefore = SchedulerSleep::requests();

    auto const destroyed = std::async(std::launch::async, [&sut] { sut.reset(); });
    bool const stopRequested = waitFor([&] { return SchedulerSleep::requests() > requestsBefore; });
    goOn.set_value();
    EXPECT_TRUE(becomesReady(destroyed));

    EXPECT_TRUE(stopRequested);
    EXPECT_THAT(log.linesOf(logger), ElementsAre(line(Severity::Info, "+schedulerThread: starting"),
                                                 line(Severity::Info, "-schedulerThread: exiting without error")));
}

TEST_F(PeriodicCallerManagerLifeTest, UnknownStrategyThrowsAndStartsNoThread)
{
    std::size_t const threadsBefore = threadsAtRest();

    EXPECT_THAT(
        [] { std::make_shared<PeriodicCallerManager>(static_cast<Strategy>(2), "sensors"); },
        ThrowsMessage<std::runtime_error>(StrEq("Unknown execution strategy requested for the PeriodicCallerManager")));
    EXPECT_EQ(runningThreads(), threadsBefore);
    EXPECT_THAT(log.lines(), IsEmpty());
}

/// Makes threads impossible: their stacks do not fit any address space.
class OversizedStacks
{
public:
    OversizedStacks()
    {
        pthread_getattr_default_np(&before);
        pthread_attr_t oversized;
        pthread_attr_init(&oversized);
        pthread_attr_setstacksize(&oversized, std::size_t{15} << (sizeof(std::size_t) * 8 - 4));
        pthread_setattr_default_np(&oversized);
        pthread_attr_destroy(&oversized);
    }

    OversizedStacks(OversizedStacks const&) = delete;
    OversizedStacks& operator=(OversizedStacks const&) = delete;

    ~OversizedStacks()
    {
        pthread_setattr_default_np(&before);
        pthread_attr_destroy(&before);
    }

private:
    pthread_attr_t before{};
};

TEST_P(PeriodicCallerManagerLifeStrategyTest, ConstructorThrowsWhenNoThreadCanBeMade)
{
    std::size_t const threadsBefore = threadsAtRest();
    {
        OversizedStacks const noThreads;

        EXPECT_THROW(std::make_shared<PeriodicCallerManager>(GetParam(), "sensors"), std::exception);
    }

    EXPECT_EQ(runningThreads(), threadsBefore);
    EXPECT_THAT(log.lines(), IsEmpty());
}

// kept: a function runs for as long as its token lives, whoever lets go of the manager
TEST_P(PeriodicCallerManagerLifeStrategyTest, TokenThatOutlivesAllOwnersKeepsTheManagerAtWork)
{
    std::atomic<int> calls{0};
    auto sut = makeAsleep(GetParam());
    std::size_t const threadsOfOne = threadsAtRest();
    Token last = addAsleep(
        *sut, [] {}, longPeriod);
    Token fast = addAsleep(
        *sut, [&calls] { ++calls; }, 100ms);

    sut.reset();
    int const callsBefore = calls;

    EXPECT_TRUE(hasBecome(calls, callsBefore + 3));
    EXPECT_EQ(runningThreads(), threadsOfOne);

    end(fast);
    last.reset();

    EXPECT_TRUE(waitFor([&] { return runningThreads() < threadsOfOne; }));
    EXPECT_EQ(log.count(line(Severity::Info, "-schedulerThread: exiting without error")), 1);
}

}

}
