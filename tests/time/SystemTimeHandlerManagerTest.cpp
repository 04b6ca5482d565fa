#include "scheduling/SchedulerSleep.h"
#include "scheduling/Strategies.h"
#include "support/Resources.h"
#include "support/SteadyClockDouble.h"
#include "support/SystemClockLock.h"
#include "support/WaitFor.h"
#include "time/SystemTimeHandlerFixture.h"

#include <utils/PeriodicCallerManager.h>

#include <gmock/gmock.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <ctime>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <thread>

namespace Halden::Tavro::Utils
{

namespace
{

using Log::Severity;
using testing::ElementsAre;
using namespace TestSupport;
using namespace std::chrono_literals;

/// Runs on a real manager, which polls only when the test allows it.
class DrivenManager : public PeriodicCallerManagerIfc
{
public:
    explicit DrivenManager(Strategy strategy)
        : real(std::make_shared<PeriodicCallerManager>(strategy, "driven"))
    {
        SchedulerSleep::await();
        idle = real->add([this] { ++passes; }, 100ms);
        EXPECT_TRUE(waitForPasses(1));
    }

    DrivenManager(DrivenManager const&) = delete;
    DrivenManager& operator=(DrivenManager const&) = delete;

    ~DrivenManager() override
    {
        SchedulerSleep::await(50ms);
        idle.reset();
        SchedulerSleep::await();
    }

    Token add(std::function<void()> function, std::chrono::duration<double> period) override
    {
        EXPECT_EQ(period.count(), 60.0);
        auto token = real->add(
            [this, function = std::move(function)]
            {
                if (allowed.exchange(false))
                {
                    function();
                    ++polls;
                }
            },
            5ms);
        if (holdAddUntilPolled)
        {
            allowed = true;
            EXPECT_TRUE(waitForPolls(1));
        }
        ++tokens;
        return std::make_unique<ReportingToken>(std::move(token), [this] { --tokens; });
    }

    bool poll()
    {
        int const before = polls;
        allowed = true;
        return waitForPolls(before + 1);
    }

    bool waitForPolls(int count) const
    {
        return waitFor([&] { return polls >= count; });
    }

    /// The scheduler is alive and has been through its list that often.
    bool waitForPasses(int count) const
    {
        int const before = passes;
        return waitFor([&] { return passes >= before + count; });
    }

    std::atomic<bool> allowed{false};
    std::atomic<bool> holdAddUntilPolled{false};
    std::atomic<int> passes{0};
    std::atomic<int> polls{0};
    std::atomic<int> tokens{0};
    std::shared_ptr<PeriodicCallerManager> real;
    Token idle;
};

class SystemTimeHandlerManagerTest : public SystemTimeHandlerFixture, public testing::WithParamInterface<Strategy>
{
protected:
    SystemTimeHandlerManagerTest()
    {
        // Should the end of the idle function be held up until it is due again.
        log.expect(isLine(Severity::Warning, "Halden::Tavro::Utils::PcmItem",
                          std::string("Execution of PCM item is forbidden")));
    }

    std::shared_ptr<DrivenManager> driven = std::make_shared<DrivenManager>(GetParam());
    std::unique_ptr<SystemTimeHandler> handler = std::make_unique<SystemTimeHandler>(driven);
};

TEST_P(SystemTimeHandlerManagerTest, PollDestroysItsOwnTokenAndIsNeverRunAgain)
{
    handler->initialize();
    ASSERT_TRUE(driven->poll());
    ASSERT_EQ(driven->tokens, 1);
    ASSERT_FALSE(handler->hasAbsoluteTime());
    letReadFail(ECANCELED);

    ASSERT_TRUE(driven->poll());
    driven->allowed = true;
    ASSERT_TRUE(driven->waitForPasses(3));

    EXPECT_TRUE(handler->hasAbsoluteTime());
    EXPECT_EQ(driven->tokens, 0);
    EXPECT_EQ(driven->polls, 2);
    EXPECT_THAT(events, ElementsAre("close 4711"));
}

TEST_P(SystemTimeHandlerManagerTest, TokenDoesNotSurviveAFirstPollThatWasFasterThanAdd)
{
    driven->holdAddUntilPolled = true;
    letReadFail(ECANCELED);

    handler->initialize();
    driven->allowed = true;
    ASSERT_TRUE(driven->waitForPasses(3));

    EXPECT_TRUE(handler->hasAbsoluteTime());
    EXPECT_EQ(driven->tokens, 0);
    EXPECT_EQ(driven->polls, 1);
}

TEST_P(SystemTimeHandlerManagerTest, DestructorWaitsForAPollThatReachesTrustMeanwhile)
{
    handler->initialize();
    std::promise<void> polling;
    std::promise<void> goOn;
    std::shared_future<void> const released = goOn.get_future().share();
    adjtimexDouble.replace(
        [&polling, released](timex* query)
        {
            polling.set_value();
            EXPECT_TRUE(becomesReady(released, 10s));
            query->status = 0;
            return 0;
        });
    driven->allowed = true;
    ASSERT_TRUE(becomesReady(polling.get_future(), 10s));

    std::thread destroyer([this] { handler.reset(); });
    EXPECT_TRUE(waitFor([this] { return driven->tokens == 0; }));
    EXPECT_EQ(driven->polls, 0);
    goOn.set_value();
    destroyer.join();

    EXPECT_EQ(log.count(isLine(Severity::Debug, "SystemTime", "Clock is synced.")), 1U);
}

TEST_P(SystemTimeHandlerManagerTest, SettingTheRealClockIsSeenThroughTheRealTimer)
{
    TestSupport::SystemClockLock const lock;
    timerfdCreateDouble.replace(
        [](int clock, int flags)
        {
            int const real = timerfdCreateDouble.passOn(clock, flags);
            timerUnderTest = real;
            return real;
        });
    timerfdSettimeDouble.replace(nullptr);
    readDouble.replace(nullptr);
    closeDouble.replace(nullptr);
    auto const before = TestSupport::openDescriptors();
    handler->initialize();
    ASSERT_TRUE(driven->poll());
    ASSERT_FALSE(handler->hasAbsoluteTime());
    // Threads of the pool that start meanwhile may look at files of their own.
    ASSERT_TRUE(waitFor([&] { return TestSupport::openDescriptors() == before + 1; }));

    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    if (clock_settime(CLOCK_REALTIME, &now) != 0)
    {
        GTEST_SKIP() << "not allowed to set the clock: " << strerror(errno);
    }
    ASSERT_TRUE(driven->poll());

    EXPECT_TRUE(handler->hasAbsoluteTime());
    EXPECT_EQ(log.count(isLine(Severity::Info, "SystemTime", "Clock time was set.")), 1U);
    EXPECT_EQ(driven->tokens, 0);
    EXPECT_TRUE(waitFor([&] { return TestSupport::openDescriptors() == before; }));
}

INSTANTIATE_TEST_SUITE_P(Both, SystemTimeHandlerManagerTest, bothStrategies(), nameOfStrategy);

/// Handler and manager as two locals.
class SystemTimeHandlerManagerEndTest : public SystemTimeHandlerFixture, public testing::WithParamInterface<Strategy>
{
};

TEST_P(SystemTimeHandlerManagerEndTest, DestructorWaitsForAPollThatDestroysItsOwnToken)
{
    SteadyClockDouble clock(1h); // the first poll is due when the machine has been up for a minute
    clock.goOn();
    auto manager = std::make_shared<PeriodicCallerManager>(GetParam(), "local");
    auto handler = std::make_unique<SystemTimeHandler>(std::make_shared<ImpatientManager>(manager));
    std::promise<void> initialized;
    std::promise<void> tokenTaken;
    std::promise<void> handlerGone;
    adjtimexDouble.replace(
        [&](timex* query)
        {
            query->status = STA_UNSYNC;
            if (adjtimexDouble.count() > 1) // the first is initialize()'s
            {
                EXPECT_TRUE(becomesReady(initialized.get_future()));
            }
            return TIME_ERROR;
        });
    letReadFail(ECANCELED);
    log.onLine(
        [&](LogLine const& line)
        {
            if (line.text == "+remove" && line.logger == "Halden::Tavro::Utils::PeriodicCallerManager(local)")
            {
                tokenTaken.set_value(); // this poll holds the manager by its token
                EXPECT_FALSE(becomesReady(handlerGone.get_future(), 200ms));
            }
        });

    handler->initialize();
    initialized.set_value();
    ASSERT_TRUE(becomesReady(tokenTaken.get_future()));
    handler.reset();
    auto const owners = manager.use_count();
    handlerGone.set_value();

    EXPECT_EQ(owners, 1); // else the poll might be the last one, and the manager would die on its own thread
    SchedulerSleep::await();
}

INSTANTIATE_TEST_SUITE_P(Both, SystemTimeHandlerManagerEndTest, bothStrategies(), nameOfStrategy);

}

}
