#include "scheduling/HeldCall.h"
#include "scheduling/HeldWhenCopied.h"
#include "scheduling/ManagerTest.h"
#include "scheduling/SchedulerSleep.h"
#include "support/Resources.h"
#include "support/WaitFor.h"

#include <gmock/gmock.h>

#include <atomic>
#include <cstddef>
#include <future>
#include <memory>
#include <stdexcept>
#include <tuple>
#include <utility>

namespace Halden::Tavro::Utils
{

namespace
{

using namespace std::chrono_literals;
using namespace testing;
using namespace TestSupport;

using Log::Severity;
using std::chrono::steady_clock;

using PeriodicCallerManagerHardenedTest = ManagerTest;

// A manager that no shared pointer owns

TEST_F(PeriodicCallerManagerHardenedTest, ManagerOnTheStackThrowsOnAddAndRegistersNothing)
{
    auto held = std::make_shared<int>(0);
    std::weak_ptr<int> const watched = held;
    PeriodicCallerManager sut(Strategy::Sequential, "sensors");
    SchedulerSleep::await();
    log.clear();

    EXPECT_THROW(std::ignore = sut.add([held = std::move(held)] {}, 10ms), std::bad_weak_ptr);

    EXPECT_TRUE(watched.expired());
    EXPECT_EQ(nextPcmDueTime(sut), steady_clock::time_point::max());
    EXPECT_THAT(log.lines(), ElementsAre(trace("Adding item with period (10)ms")));
}

TEST_F(PeriodicCallerManagerHardenedTest, ManagerInAUniquePointerThrowsOnAddAndRegistersNothing)
{
    auto const sut = std::make_unique<PeriodicCallerManager>(Strategy::ThreadPool, "sensors");
    SchedulerSleep::await();

    EXPECT_THROW(std::ignore = sut->add([] {}, 10ms), std::bad_weak_ptr);

    EXPECT_EQ(nextPcmDueTime(*sut), steady_clock::time_point::max());
}

TEST_F(PeriodicCallerManagerHardenedTest, ManagerOnTheStackRefusesAPeriodOfZeroAsAnyOther)
{
    log.expect(line(Severity::Error, "PCM item minimum period is 1ms, got 0ms"));
    PeriodicCallerManager sut(Strategy::Sequential, "sensors");

    EXPECT_THROW(std::ignore = sut.add([] {}, 0ms), std::invalid_argument);
}

// Requests and the scan

TEST_F(PeriodicCallerManagerHardenedTest, RequestBetweenTheLastLookAndTheSleepIsServedAtOnce)
{
    std::promise<void> called;
    std::future<Token> adding;
    auto sut = makeAsleep();
    SchedulerSleep::beforeNext(
        [&]
        {
            std::promise<void> begun;
            adding = std::async(std::launch::async,
                                [&sut, &called, &begun]
                                {
                                    begun.set_value();
                                    return sut->add([&called] { called.set_value(); }, longPeriod);
                                });
            begun.get_future().wait();
            EXPECT_FALSE(becomesReady(adding, 50ms)) << "does not wait for the sleep to begin";
        });

    Token const waking = sut->add([] {}, sixYears);

    EXPECT_TRUE(becomesReady(called.get_future()));
    Token const late = adding.get();
    SchedulerSleep::await();
}

TEST_F(PeriodicCallerManagerHardenedTest, StopBetweenTheLastLookAndTheSleepOfAnEmptyManagerIsServedAtOnce)
{
    std::promise<void> looked;
    std::promise<void> goOn;
    SchedulerSleep::beforeNext(
        [&]
        {
            looked.set_value();
            becomesReady(goOn.get_future());
        });
    auto sut = std::make_shared<PeriodicCallerManager>(Strategy::Sequential, "sensors");
    ASSERT_TRUE(becomesReady(looked.get_future()));

    auto const destroyed = std::async(std::launch::async, [&sut] { sut.reset(); });
    EXPECT_FALSE(becomesReady(destroyed, 50ms));
    goOn.set_value();

    EXPECT_TRUE(becomesReady(destroyed));
}

TEST_F(PeriodicCallerManagerHardenedTest, SchedulerScansItsListAfterAChangeInProgress)
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

    EXPECT_FALSE(waitFor([&] { return log.count(passText) > 0; }, 100ms));
    change.release();
    EXPECT_TRUE(log.waitFor(passText));
    Token const added = adding.get();
    SchedulerSleep::await();
}

// The last reference

class PeriodicCallerManagerEndHardenedTest : public ManagerStrategyTest
{
protected:
    /// A service as they are written: it owns its manager, and its function's token.
    struct Service
    {
        std::shared_ptr<PeriodicCallerManager> manager;
        Token token;
        Token other;
    };

    PeriodicCallerManagerEndHardenedTest()
        : threadsBefore(runningThreads())
    {
    }

    /// Registers a function that owns the service, like nobody else from then on, and destroys its own token.
    static void addFunctionThatEndsItself(std::shared_ptr<Service> service)
    {
        std::promise<void> registered;
        service->token = service->manager->add(
            [service, registering = registered.get_future().share()]
            {
                registering.get();
                service->token.reset();
            },
            longPeriod);
        service.reset();
        registered.set_value();
    }

    /// Each manager has one thread, and each pool as many as it likes: all of them are gone.
    void expectEnded()
    {
        EXPECT_TRUE(waitFor([this] { return runningThreads() <= threadsBefore; }));
        EXPECT_EQ(log.count(line(Severity::Info, "stop requested: leaving wait")), 1);
        EXPECT_EQ(log.count(line(Severity::Info, "-schedulerThread: exiting without error")), 1);
    }

    std::size_t const threadsBefore;
};

INSTANTIATE_TEST_SUITE_P(Both, PeriodicCallerManagerEndHardenedTest, bothStrategies(), nameOfStrategy);

TEST_P(PeriodicCallerManagerEndHardenedTest, LastTokenMayBeDestroyedInsideItsOwnFunctionWhichRunsOn)
{
    std::promise<Token> handed;
    std::promise<void> ranOn;
    std::weak_ptr<PeriodicCallerManager> watched;
    {
        auto sut = makeAsleep(GetParam());
        watched = sut;
        Token token = sut->add(
            [&]
            {
                handed.get_future().get().reset();
                ranOn.set_value();
            },
            longPeriod);
        sut.reset();
        handed.set_value(std::move(token));
    }

    EXPECT_TRUE(becomesReady(ranOn.get_future()));
    EXPECT_TRUE(watched.expired());
    expectEnded();
}

TEST_P(PeriodicCallerManagerEndHardenedTest, LastPointerMayBeDroppedInsideAFunctionAfterItsToken)
{
    Service service{makeAsleep(GetParam()), {}, {}};
    std::promise<void> registered;
    std::promise<void> ranOn;
    service.token = service.manager->add(
        [&]
        {
            registered.get_future().get();
            service.token.reset();
            service.manager.reset();
            ranOn.set_value();
        },
        longPeriod);
    registered.set_value();

    EXPECT_TRUE(becomesReady(ranOn.get_future()));
    expectEnded();
}

TEST_P(PeriodicCallerManagerEndHardenedTest, FunctionMayHoldTheManagerAndEndItsOwnRegistration)
{
    auto service = std::make_shared<Service>();
    std::weak_ptr<Service> const watched = service;
    service->manager = makeAsleep(GetParam());

    addFunctionThatEndsItself(std::move(service));

    EXPECT_TRUE(waitFor([&watched] { return watched.expired(); }));
    expectEnded();
}

TEST_P(PeriodicCallerManagerEndHardenedTest, RemovedFunctionMayHoldTheManagerAndTheLastOtherToken)
{
    auto service = std::make_shared<Service>();
    std::weak_ptr<Service> const watched = service;
    std::atomic<int> ticks{0};
    service->manager = makeAsleep(GetParam());
    service->other = service->manager->add([&ticks] { ++ticks; }, 20ms); // its due time ends the sleep

    addFunctionThatEndsItself(std::move(service));

    EXPECT_TRUE(waitFor([&watched] { return watched.expired(); }));
    EXPECT_GT(ticks, 0);
    expectEnded();
}

TEST_P(PeriodicCallerManagerEndHardenedTest, ManagerThatEndsInsideAFunctionLeavesTheRestOfItsBatchToRunOn)
{
    log.expect(forbidden); // when the other has not run before
    Service service{makeAsleep(GetParam()), {}, {}};
    HeldCall blocker;
    Token blocking = service.manager->add([&blocker] { blocker(); }, longPeriod);
    EXPECT_TRUE(blocker.awaitEntered()); // so that both get into the next batch
    std::atomic<int> others{0};
    std::promise<void> registered;
    std::promise<void> ended;
    service.token = service.manager->add(
        [&]
        {
            registered.get_future().get();
            waitFor([&] { return GetParam() == Strategy::Sequential || others > 0; });
            service.token.reset();
            service.other.reset();
            service.manager.reset();
            ended.set_value();
        },
        sinceBoot() - 50ms); // so it comes first
    service.other = service.manager->add([&others] { ++others; }, sinceBoot() - 10ms);

    blocker.release();
    blocking.reset();
    registered.set_value();

    EXPECT_TRUE(becomesReady(ended.get_future()));
    expectEnded();
    EXPECT_EQ(others, GetParam() == Strategy::Sequential ? 0 : 1);
}

TEST_P(PeriodicCallerManagerEndHardenedTest, ManagerThatEndsInsideAFunctionOfAnotherIsGoneAfterwards)
{
    auto sut = makeAsleep(GetParam());
    auto other = makeAsleep(GetParam());
    std::promise<bool> gone;
    Token const token = sut->add(
        [&]
        {
            std::weak_ptr<PeriodicCallerManager> const watched = other;
            other.reset();
            gone.set_value(watched.expired() && log.count(line(Severity::Info, StartsWith("-schedulerThread"))) == 1);
        },
        longPeriod);

    auto answer = gone.get_future();
    ASSERT_TRUE(becomesReady(answer));
    EXPECT_TRUE(answer.get());
    SchedulerSleep::await();
}

TEST_P(PeriodicCallerManagerEndHardenedTest, RemovedItemIsReleasedBeforeASleepWithoutEnd)
{
    auto held = std::make_shared<int>(0);
    std::weak_ptr<int> const watched = held;
    std::promise<Token> handed;
    auto sut = makeAsleep(GetParam());
    handed.set_value(sut->add([&handed, held = std::move(held)] { handed.get_future().get().reset(); }, longPeriod));

    EXPECT_TRUE(waitFor([&watched] { return watched.expired(); }));
    SchedulerSleep::await();
}

TEST_P(PeriodicCallerManagerEndHardenedTest, ManagersThatEndInsideTheirFunctionsManyTimesLeaveNothingBehind)
{
    for (int i = 0; i < 200; ++i)
    {
        auto service = std::make_shared<Service>();
        std::weak_ptr<Service> const watched = service;
        std::promise<void> registered;
        service->manager = std::make_shared<PeriodicCallerManager>(GetParam(), "sensors");
        service->token = service->manager->add(
            [service, registering = registered.get_future().share(), i]
            {
                registering.get();
                service->token.reset();
                if (i % 2 == 0)
                {
                    service->manager.reset();
                }
            },
            longPeriod);
        service.reset();
        registered.set_value();
        ASSERT_TRUE(waitFor([&watched] { return watched.expired(); }));
    }

    EXPECT_TRUE(waitFor([this] { return runningThreads() <= threadsBefore; }));
}

}

}
