#include "scheduling/ManagerTest.h"
#include "scheduling/SchedulerSleep.h"
#include "support/ChildProcess.h"
#include "support/PrintingSink.h"

#include <gmock/gmock.h>

#include <signal.h>

#include <cstddef>
#include <future>
#include <memory>
#include <thread>
#include <utility>

namespace Halden::Tavro::Utils
{

namespace
{

using namespace std::chrono_literals;
using namespace testing;
using namespace TestSupport;

using PeriodicCallerManagerFatalExactTest = ManagerTest;

/// The function holds the only token, which is the last owner of the manager.
int destroyLastTokenInsideItsFunction(Strategy strategy)
{
    std::promise<Token> handed;
    auto manager = makeAsleep(strategy);
    Token token = manager->add(
        [&handed]
        {
            Token own = handed.get_future().get();
            print("destroying");
            own.reset();
            print("destroyed");
        },
        longPeriod);
    manager.reset();
    handed.set_value(std::move(token));
    std::this_thread::sleep_for(1h);
    return 0;
}

// kept: a manager's destructor waits for the scheduler thread, which cannot wait for itself
TEST_F(PeriodicCallerManagerFatalExactTest, LastTokenDestroyedInsideItsOwnFunctionEndsTheProcessWhenSequential)
{
    auto const result = runInChild([] { return destroyLastTokenInsideItsFunction(Strategy::Sequential); });

    EXPECT_EQ(result.signal, SIGABRT);
    EXPECT_THAT(result.output, AllOf(HasSubstr("destroying\n"), Not(HasSubstr("destroyed\n"))));
}

// kept: as above, but it is the scheduler thread that waits, for the function
TEST_F(PeriodicCallerManagerFatalExactTest, LastTokenDestroyedInsideItsOwnFunctionNeverReturnsWithAThreadPool)
{
    // The scheduler thread itself may have taken up the item, and then the process ends.
    auto const result = runInChild([] { return destroyLastTokenInsideItsFunction(Strategy::ThreadPool); }, 3s);

    EXPECT_TRUE(result.timedOut || result.signal == SIGABRT);
    EXPECT_THAT(result.output, AllOf(HasSubstr("destroying\n"), Not(HasSubstr("destroyed\n"))));
}

// kept: requests are made without the wait mutex, so this one is not heard
TEST_F(PeriodicCallerManagerFatalExactTest, StopBetweenTheLastLookAndTheSleepOfAnEmptyManagerHangs)
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

}
