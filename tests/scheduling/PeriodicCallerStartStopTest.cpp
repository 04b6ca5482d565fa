#include "scheduling/CallerTest.h"
#include "scheduling/HeldCall.h"
#include "support/Resources.h"

#include <utils/PeriodicCaller.h>

#include <gmock/gmock.h>

#include <atomic>
#include <cerrno>
#include <future>
#include <memory>
#include <optional>
#include <system_error>
#include <thread>

namespace Halden::Tavro::Utils
{

namespace
{

using namespace std::chrono_literals;
using namespace testing;
using namespace TestSupport;

class PeriodicCallerStartStopTest : public CallerTest
{
protected:
    /// A caller on the way into its first call, which goes on until it is released.
    std::unique_ptr<PeriodicCaller> startIntoACall()
    {
        skippedWaits = 1;
        auto caller = std::make_unique<PeriodicCaller>(1h, "led",
                                                       [this](auto const&)
                                                       {
                                                           held();
                                                           finished = true;
                                                       });
        caller->start();
        return caller;
    }

    HeldCall held;
    std::atomic<bool> finished{false};
};

TEST_F(PeriodicCallerStartStopTest, SecondStartThrowsAndLeavesTheWorkerAlone)
{
    std::atomic<int> calls{0};
    PeriodicCaller sut(1us, "led", [&](auto const&) { ++calls; });
    sut.start();
    log.clear();

    EXPECT_THAT([&] { sut.start(); }, throwsAlreadyStarted("led"));

    int const callsBefore = calls;
    EXPECT_TRUE(waitFor([&] { return calls > callsBefore; }));
    EXPECT_EQ(pthreadCreate.count(), 1U);
    EXPECT_EQ(log.count(debugLine("+start()")), 1U);
    EXPECT_EQ(log.count(debugLine("-start()")), 0U);
}

TEST_F(PeriodicCallerStartStopTest, StartsAgainAfterAStop)
{
    std::atomic<int> calls{0};
    PeriodicCaller sut(0us, "led", [&](auto const&) { ++calls; });
    startAndStop(sut);
    int const callsBefore = calls;

    sut.start();

    EXPECT_TRUE(waitFor([&] { return calls > callsBefore; }));
}

TEST_F(PeriodicCallerStartStopTest, StopEndsTheWaitWithoutACall)
{
    std::atomic<int> calls{0};
    PeriodicCaller sut(1h, "led", [&](auto const&) { ++calls; });
    sut.start();
    ASSERT_TRUE(waits.waitForCount(1));

    sut.stop();

    EXPECT_EQ(calls, 0);
}

TEST_F(PeriodicCallerStartStopTest, StopBetweenTheWorkersLastLookAndItsWaitIsNotLost)
{
    std::atomic<bool> looked{false};
    condClockwait.replace(
        [&](auto* condition, auto* mutex, auto clock, auto* deadline)
        {
            looked = true; // the mutex is held, the wait has not begun
            EXPECT_TRUE(log.waitFor(stopping));
            std::this_thread::sleep_for(100ms); // in which stop() does not get past the mutex
            return condClockwait.passOn(condition, mutex, clock, deadline);
        });
    PeriodicCaller sut(1h, "led", doNothing);
    sut.start();
    ASSERT_TRUE(waitFor([&] { return looked.load(); }));

    auto const stopped = std::async(std::launch::async, [&sut] { sut.stop(); });

    EXPECT_TRUE(becomesReady(stopped));
}

TEST_F(PeriodicCallerStartStopTest, StopReturnsOnlyAfterTheCallInProgress)
{
    auto const sut = startIntoACall();
    ASSERT_TRUE(held.awaitEntered());

    auto stopped = std::async(std::launch::async,
                              [&]
                              {
                                  sut->stop();
                                  return finished.load();
                              });
    EXPECT_TRUE(log.waitFor(stopping));
    EXPECT_FALSE(becomesReady(stopped, 50ms));
    held.release();

    EXPECT_TRUE(stopped.get());
}

TEST_F(PeriodicCallerStartStopTest, StartDuringACallWaitsForItsEndAndThrows)
{
    auto const sut = startIntoACall();
    ASSERT_TRUE(held.awaitEntered());
    log.clear();

    auto secondStart = std::async(std::launch::async,
                                  [&]
                                  {
                                      EXPECT_THAT([&] { sut->start(); }, throwsAlreadyStarted("led"));
                                      return finished.load();
                                  });
    EXPECT_TRUE(log.waitFor(debugLine("+start()")));
    EXPECT_FALSE(becomesReady(secondStart, 50ms));
    held.release();

    EXPECT_TRUE(secondStart.get());
}

TEST_F(PeriodicCallerStartStopTest, StartLogsItsEndBeforeItReleasesTheMutex)
{
    PeriodicCaller sut(1h, "led", doNothing);
    startAndStop(sut);
    // The worker comes only after the line, so nobody but start() can hold the mutex.
    struct LateThread
    {
        void* (*routine)(void*);
        void* argument;
        std::shared_future<void> mayRun;
    };
    std::promise<void> logged;
    LateThread late{nullptr, nullptr, logged.get_future().share()};
    pthreadCreate.replace(
        [&](auto* thread, auto* attributes, auto* routine, auto* argument)
        {
            late.routine = routine;
            late.argument = argument;
            auto const runLate = [](void* given) -> void*
            {
                auto const& lateThread = *static_cast<LateThread*>(given);
                lateThread.mayRun.wait_for(20s);
                return lateThread.routine(lateThread.argument);
            };
            return pthreadCreate.passOn(thread, attributes, runLate, &late);
        });
    std::optional<bool> freeAtTheLine;
    log.onLine(
        [&](LogLine const& line)
        {
            if (line.text == "-start()")
            {
                freeAtTheLine = objectsMutexIsFree();
                logged.set_value();
            }
        });

    sut.start();

    sut.stop();
    EXPECT_EQ(freeAtTheLine, std::optional(false));
    log.onLine(nullptr);
}

TEST_F(PeriodicCallerStartStopTest, CallerWhoseThreadCannotBeCreatedCanBeStartedLater)
{
    std::atomic<int> calls{0};
    PeriodicCaller sut(0us, "led", [&](auto const&) { ++calls; });
    log.clear();
    pthreadCreate.failCall(1, EAGAIN, 0);

    EXPECT_THROW(sut.start(), std::system_error);
    EXPECT_THAT(log.lines(), ElementsAre(debugLine("+start()")));
    sut.start();

    EXPECT_TRUE(waitFor([&] { return calls > 0; }));
}

TEST_F(PeriodicCallerStartStopTest, CallerWhoseThreadCouldNotBeCreatedStopsAsOneNeverStarted)
{
    PeriodicCaller sut(1h, "led", doNothing);
    pthreadCreate.failCall(1, EAGAIN, 0);
    EXPECT_THROW(sut.start(), std::system_error);
    log.clear();

    sut.stop();

    EXPECT_THAT(log.lines(), ElementsAre(debugLine("+stop()"), debugLine("-stop()")));
}

TEST_F(PeriodicCallerStartStopTest, HundredStartsAndStopsLeaveNothingBehind)
{
    LogCapture const quiet(Log::Severity::Warning); // captured lines would count as heap blocks
    condClockwait.reset();
    auto const startAndStopOne = []
    {
        PeriodicCaller sut(1h, "led", doNothing);
        sut.start();
        EXPECT_TRUE(waitFor([] { return condClockwait.count() > 0; }));
        sut.stop();
    };
    startAndStopOne(); // the doubles keep a block for their records from now on
    auto const before = holdings();

    for (int i = 0; i < 100; ++i)
    {
        startAndStopOne();
    }

    EXPECT_TRUE(isBackTo(before));
    EXPECT_EQ(pthreadCreate.count(), 101U);
    EXPECT_GT(heapAllocations(), 100U); // they are counted at all
}

}

}
