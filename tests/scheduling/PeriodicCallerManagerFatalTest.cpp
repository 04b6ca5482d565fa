#include "scheduling/SchedulerSleep.h"
#include "support/ChildProcess.h"
#include "support/FailingNew.h"
#include "support/PrintingSink.h"

#include <log/Logger.h>
#include <utils/PeriodicCallerManager.h>

#include <gmock/gmock.h>

#include <signal.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <future>
#include <memory>
#include <thread>
#include <utility>

using namespace Halden::Tavro;
using namespace Halden::Tavro::TestSupport;
using namespace Halden::Tavro::Utils;
using namespace std::chrono_literals;
using namespace testing;

namespace
{

using Strategy = PeriodicCallerManager::ExecutionStrategy;
using Token = std::unique_ptr<PeriodicCallerManagerTokenIfc>;

/// Any period that makes a fresh item due at once, and then not again.
std::chrono::duration<double> longPeriod()
{
    return std::chrono::steady_clock::now().time_since_epoch() / 2;
}

/// Lets the scheduler thread fail in its next pass. Sequential: the function runs on that thread.
int failScheduler(AllocationFailure failure)
{
    Log::LoggerProxy::instance().setSink(std::make_shared<PrintingSink>());
    auto const manager = std::make_shared<PeriodicCallerManager>(Strategy::Sequential, "sensors");
    SchedulerSleep::await(); // a request just before the sleep would get lost
    Token const token = manager->add([failure] { failNextAllocation(failure); }, 1ms);
    std::this_thread::sleep_for(1h);
    return 0;
}

TEST(PeriodicCallerManagerFatalTest, ExceptionInTheSchedulerThreadIsLoggedAndEndsTheProcess)
{
    auto const result = runInChild([] { return failScheduler(AllocationFailure::BadAlloc); });

    EXPECT_EQ(result.signal, SIGABRT);
    EXPECT_THAT(result.output, HasSubstr("\n0 [Halden::Tavro::Utils::PeriodicCallerManager(sensors)] "
                                         "Scheduler thread failed with error std::bad_alloc\n"));
    EXPECT_THAT(result.output, Not(HasSubstr("exiting without error")));
}

TEST(PeriodicCallerManagerFatalTest, UnknownErrorInTheSchedulerThreadIsLoggedAndEndsTheProcess)
{
    auto const result = runInChild([] { return failScheduler(AllocationFailure::Unknown); });

    EXPECT_EQ(result.signal, SIGABRT);
    EXPECT_THAT(result.output, HasSubstr("\n0 [Halden::Tavro::Utils::PeriodicCallerManager(sensors)] "
                                         "Scheduler thread failed with unknown error\n"));
    EXPECT_THAT(result.output, Not(HasSubstr("exiting without error")));
}

/// The function holds the only token, which is the last owner of the manager.
int destroyLastTokenInsideItsFunction(Strategy strategy)
{
    std::promise<Token> handed;
    auto manager = std::make_shared<PeriodicCallerManager>(strategy, "sensors");
    SchedulerSleep::await();
    Token token = manager->add(
        [&handed]
        {
            Token own = handed.get_future().get();
            print("destroying");
            own.reset();
            print("destroyed");
        },
        longPeriod());
    manager.reset();
    handed.set_value(std::move(token));
    std::this_thread::sleep_for(1h);
    return 0;
}

TEST(PeriodicCallerManagerFatalTest, LastTokenDestroyedInsideItsOwnFunctionEndsTheProcessWhenSequential)
{
    auto const result = runInChild([] { return destroyLastTokenInsideItsFunction(Strategy::Sequential); });

    EXPECT_EQ(result.signal, SIGABRT);
    EXPECT_THAT(result.output, AllOf(HasSubstr("destroying\n"), Not(HasSubstr("destroyed\n"))));
}

TEST(PeriodicCallerManagerFatalTest, LastTokenDestroyedInsideItsOwnFunctionNeverReturnsWithAThreadPool)
{
    // The scheduler thread itself may have taken up the item, and then the process ends.
    auto const result = runInChild([] { return destroyLastTokenInsideItsFunction(Strategy::ThreadPool); }, 3s);

    EXPECT_TRUE(result.timedOut || result.signal == SIGABRT);
    EXPECT_THAT(result.output, AllOf(HasSubstr("destroying\n"), Not(HasSubstr("destroyed\n"))));
}

TEST(PeriodicCallerManagerFatalTest, StopBetweenTheLastLookAndTheSleepOfAnEmptyManagerHangs)
{
    auto const result = runInChild(
        []
        {
            std::promise<void> looked;
            SchedulerSleep::beforeNext(
                [&looked]
                {
                    std::size_t const before = SchedulerSleep::requests();
                    looked.set_value();
                    while (SchedulerSleep::requests() == before)
                    {
                        std::this_thread::yield();
                    }
                });
            auto manager = std::make_shared<PeriodicCallerManager>(Strategy::Sequential, "sensors");
            looked.get_future().wait();
            print("destroying");
            manager.reset();
            print("destroyed");
            return 0;
        },
        3s);

    EXPECT_TRUE(result.timedOut);
    EXPECT_THAT(result.output, AllOf(HasSubstr("destroying\n"), Not(HasSubstr("destroyed\n"))));
}

}
