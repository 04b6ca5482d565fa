#include "scheduling/HeldCall.h"
#include "scheduling/ManagerTest.h"
#include "scheduling/SchedulerSleep.h"
#include "support/ChildProcess.h"
#include "support/NewDouble.h"
#include "support/PrintingSink.h"
#include "support/WaitFor.h"

#include <log/Logger.h>

#include <gmock/gmock.h>

#include <signal.h>

#include <atomic>
#include <memory>
#include <thread>

namespace Halden::Tavro::Utils
{

namespace
{

using namespace std::chrono_literals;
using namespace testing;
using namespace TestSupport;

using PeriodicCallerManagerFatalTest = ManagerTest;

/// Lets the scheduler thread fail in its next pass. Sequential: the function runs on that thread.
int failScheduler(AllocationFailure failure)
{
    Log::LoggerProxy::instance().setThreshold(Log::Severity::Info); // a text that is composed would be what fails
    Log::LoggerProxy::instance().setSink(std::make_shared<PrintingSink>());
    auto const manager = makeAsleep();
    Token const token = manager->add([failure] { failNextAllocation(failure); }, 1ms);
    std::this_thread::sleep_for(1h);
    return 0;
}

// kept: a service without its scheduler ends, and is started anew
TEST_F(PeriodicCallerManagerFatalTest, ExceptionInTheSchedulerThreadIsLoggedAndEndsTheProcess)
{
    auto const result = runInChild([] { return failScheduler(AllocationFailure::BadAlloc); });

    EXPECT_EQ(result.signal, SIGABRT);
    EXPECT_THAT(result.output, HasSubstr("\n0 [Halden::Tavro::Utils::PeriodicCallerManager(sensors)] "
                                         "Scheduler thread failed with error std::bad_alloc\n"));
    EXPECT_THAT(result.output, Not(HasSubstr("exiting without error")));
}

// kept: as above
TEST_F(PeriodicCallerManagerFatalTest, UnknownErrorInTheSchedulerThreadIsLoggedAndEndsTheProcess)
{
    auto const result = runInChild([] { return failScheduler(AllocationFailure::Unknown); });

    EXPECT_EQ(result.signal, SIGABRT);
    EXPECT_THAT(result.output, HasSubstr("\n0 [Halden::Tavro::Utils::PeriodicCallerManager(sensors)] "
                                         "Scheduler thread failed with unknown error\n"));
    EXPECT_THAT(result.output, Not(HasSubstr("exiting without error")));
}

/// Two functions that run side by side, each of which destroys the token of the other.
int destroyEachOthersTokens()
{
    HeldCall blocker;
    std::atomic<int> started{0};
    Token first;
    Token second;
    auto const destroy = [&started](Token& other)
    {
        ++started;
        waitFor([&started] { return started == 2; });
        print("destroying");
        other.reset();
        print("destroyed");
    };
    auto const manager = makeAsleep(Strategy::ThreadPool);
    Token const blocking = manager->add([&blocker] { blocker(); }, longPeriod);
    blocker.awaitEntered(); // so that both get into the next batch
    first = manager->add([&] { destroy(second); }, longPeriod);
    second = manager->add([&] { destroy(first); }, longPeriod);
    blocker.release();
    std::this_thread::sleep_for(1h);
    return 0;
}

// kept: a token's destruction waits for its function, and each of these two is the other's
TEST_F(PeriodicCallerManagerFatalTest, FunctionsOfAPoolThatDestroyEachOthersTokensWaitForEver)
{
    auto const result = runInChild([] { return destroyEachOthersTokens(); }, 3s);

    EXPECT_TRUE(result.timedOut);
    EXPECT_EQ(result.output, "destroying\ndestroying\n");
}

}

}
