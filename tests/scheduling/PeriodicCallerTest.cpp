#include <utils/PeriodicCaller.h>

#include "support/CallDouble.h"
#include "support/ChildProcess.h"
#include "support/LogCapture.h"
#include "support/Resources.h"
#include "support/WaitFor.h"

#include <gmock/gmock.h>

#include <pthread.h>
#include <signal.h>
#include <time.h>

#include <atomic>
#include <cerrno>
#include <future>
#include <optional>
#include <type_traits>
#include <vector>

namespace
{

using namespace std::chrono_literals;
using namespace testing;
using namespace Halden::Tavro;
using namespace Halden::Tavro::TestSupport;
using Halden::Tavro::Utils::PeriodicCaller;
using std::chrono::microseconds;
using std::chrono::nanoseconds;
using std::chrono::steady_clock;

/// The wall clock of the process where it is not negative, in nanoseconds since the epoch.
std::atomic<nanoseconds::rep> wallClock{-1};

/// How far the monotonic clock of this thread is ahead.
thread_local nanoseconds monotonicLead{0};

CallDouble<int(pthread_cond_t*, pthread_mutex_t*, clockid_t, timespec const*)> condClockwait{"pthread_cond_clockwait"};
CallDouble<int(pthread_t*, pthread_attr_t const*, void* (*)(void*), void*)> pthreadCreate{"pthread_create"};

nanoseconds toNanoseconds(timespec const& time)
{
    return std::chrono::seconds(time.tv_sec) + nanoseconds(time.tv_nsec);
}

timespec toTimespec(nanoseconds time)
{
    auto const seconds = std::chrono::duration_cast<std::chrono::seconds>(time);
    return {static_cast<time_t>(seconds.count()), static_cast<long>((time - seconds).count())};
}

}

extern "C" int pthread_cond_clockwait(pthread_cond_t* condition, pthread_mutex_t* mutex, clockid_t clock,
                                      timespec const* deadline)
{
    return condClockwait(condition, mutex, clock, deadline);
}

extern "C" int pthread_create(pthread_t* thread, pthread_attr_t const* attributes, void* (*routine)(void*),
                              void* argument) noexcept
{
    return pthreadCreate(thread, attributes, routine, argument);
}

extern "C" int clockOfTest(clockid_t clock, timespec* time) noexcept
{
    // No CallDouble: run-time libraries read the clocks before its constructor has run.
    static auto* const systemsOwn = systemFunction<int (*)(clockid_t, timespec*)>("clock_gettime");
    int const result = systemsOwn(clock, time);
    if (clock == CLOCK_REALTIME && wallClock >= 0)
    {
        *time = toTimespec(nanoseconds(wallClock));
    }
    if (clock == CLOCK_MONOTONIC && monotonicLead != 0ns)
    {
        *time = toTimespec(toNanoseconds(*time) + monotonicLead);
    }
    return result;
}
HALDEN_DOUBLE(clock_gettime, clockOfTest)

namespace
{

std::string const loggerOfLed = "Halden::Tavro::Utils::PeriodicCaller 'led'";

auto debugLine(std::string const& text)
{
    return isLine(Log::Severity::Debug, loggerOfLed, text);
}

auto const stopping = isLine(Log::Severity::Trace, loggerOfLed, "~stop: stopping the periodic caller thread");
auto const endedByException =
    isLine(Log::Severity::Critical, loggerOfLed, "PeriodicCaller thread stop because of exception. What: broken");

auto throwsAlreadyStarted(std::string const& name)
{
    return ThrowsMessage<std::runtime_error>(StrEq("PeriodicCaller is already started. Name = '" + name + "'"));
}

void doNothing(microseconds const& /*elapsed*/) {}

/// One wait of the worker, as asked from the system.
struct Wait
{
    clockid_t clock;
    nanoseconds deadline; // since the clock's epoch
    nanoseconds left;     // from the call to the deadline
};

/// Values that the worker hands to the test.
template <typename Value>
class Recorded
{
public:
    void add(Value const& value)
    {
        std::lock_guard const lock(mutex);
        values.push_back(value);
    }

    std::vector<Value> get() const
    {
        std::lock_guard const lock(mutex);
        return values;
    }

    bool waitForCount(std::size_t count) const
    {
        return waitFor([&] { return get().size() >= count; });
    }

private:
    mutable std::mutex mutex;
    std::vector<Value> values; // guarded by mutex
};

class PeriodicCallerTest : public Test
{
protected:
    PeriodicCallerTest()
    {
        condClockwait.reset();
        pthreadCreate.reset();
        wallClock = -1;
        recordWaits([this](Wait const& /*wait*/) { return skippedWaits-- > 0; });
    }

    ~PeriodicCallerTest() override
    {
        condClockwait.reset();
        pthreadCreate.reset();
        wallClock = -1;
    }

    /// Records the worker's waits. Those that `passesAtOnce` says take no time but on the worker's monotonic clock.
    void recordWaits(std::function<bool(Wait const&)> passesAtOnce)
    {
        condClockwait.replace(
            [this, passesAtOnce = std::move(passesAtOnce)](auto* condition, auto* mutex, auto clock, auto* deadline)
            {
                auto const now = steady_clock::now().time_since_epoch();
                Wait const wait{clock, toNanoseconds(*deadline), toNanoseconds(*deadline) - now};
                objectsMutex = mutex;
                waits.add(wait);
                if (!passesAtOnce(wait))
                {
                    return condClockwait.passOn(condition, mutex, clock, deadline);
                }
                monotonicLead += wait.left;
                wallClock += wallClockStep;
                return ETIMEDOUT;
            });
    }

    bool objectsMutexIsFree() const
    {
        if (pthread_mutex_trylock(objectsMutex) != 0)
        {
            return false;
        }
        pthread_mutex_unlock(objectsMutex);
        return true;
    }

    /// Makes the object's mutex known.
    void startAndStop(PeriodicCaller& sut)
    {
        sut.start();
        EXPECT_TRUE(waits.waitForCount(1));
        sut.stop();
    }

    LogCapture log;
    Recorded<Wait> waits;
    std::atomic<pthread_mutex_t*> objectsMutex{nullptr}; // known from the first wait on
    std::atomic<int> skippedWaits{0};                    // those from the start on that take no real time
    std::atomic<nanoseconds::rep> wallClockStep{0};      // of the wall clock in each skipped wait
};

// Class and construction

TEST_F(PeriodicCallerTest, IsNeitherPolymorphicNorCopyableNorMovableNorALoggerToOthers)
{
    EXPECT_FALSE(std::is_polymorphic_v<PeriodicCaller>);
    EXPECT_FALSE(std::is_copy_constructible_v<PeriodicCaller>);
    EXPECT_FALSE(std::is_copy_assignable_v<PeriodicCaller>);
    EXPECT_FALSE(std::is_move_constructible_v<PeriodicCaller>);
    EXPECT_FALSE(std::is_move_assignable_v<PeriodicCaller>);
    EXPECT_FALSE((std::is_convertible_v<PeriodicCaller*, Log::Logger*>));
}

TEST_F(PeriodicCallerTest, ConstructionLogsThePeriodAndStartsNoThread)
{
    PeriodicCaller const sut(1500ms, "led", doNothing);

    EXPECT_THAT(log.lines(), ElementsAre(debugLine("Period set to 1500000us")));
    EXPECT_EQ(pthreadCreate.count(), 0U);
}

TEST_F(PeriodicCallerTest, LogsAnyPeriodAsItWasGiven)
{
    PeriodicCaller const negative(-1us, "led", doNothing);
    PeriodicCaller const zero(0us, "led", doNothing);
    PeriodicCaller const least(microseconds::min(), "led", doNothing);
    PeriodicCaller const greatest(microseconds::max(), "led", doNothing);

    EXPECT_THAT(log.lines(), ElementsAre(debugLine("Period set to -1us"), debugLine("Period set to 0us"),
                                         debugLine("Period set to -9223372036854775808us"),
                                         debugLine("Period set to 9223372036854775807us")));
}

TEST_F(PeriodicCallerTest, CallsACopyOfTheCallback)
{
    std::promise<void> called;
    PeriodicCaller::Callback callback = [&](auto const&) { called.set_value(); };
    skippedWaits = 1;
    PeriodicCaller sut(1h, "led", callback);
    callback = nullptr;

    sut.start();

    EXPECT_EQ(called.get_future().wait_for(10s), std::future_status::ready);
}

TEST_F(PeriodicCallerTest, ReleasesTheCallbackWhenDestroyed)
{
    auto const held = std::make_shared<int>();
    {
        PeriodicCaller sut(1h, "led", [held](auto const&) {});
        startAndStop(sut);
        EXPECT_EQ(held.use_count(), 2);
    }

    EXPECT_EQ(held.use_count(), 1);
}

// The log

TEST_F(PeriodicCallerTest, LogsStartAndStopInTheirOrder)
{
    PeriodicCaller sut(1h, "led", doNothing);
    log.clear();
    sut.start();
    ASSERT_TRUE(waits.waitForCount(1));

    sut.stop();

    auto const entered = debugLine("-start()");
    auto const working = debugLine("+periodicCallerThread(name = led)");
    auto const left = debugLine("-periodicCallerThread(name = led)");
    EXPECT_THAT(log.lines(), AnyOf(ElementsAre(debugLine("+start()"), entered, working, debugLine("+stop()"), stopping,
                                               left, debugLine("-stop()")),
                                   ElementsAre(debugLine("+start()"), working, entered, debugLine("+stop()"), stopping,
                                               left, debugLine("-stop()"))));
}

TEST_F(PeriodicCallerTest, StopOfACallerNeverStartedLogsTwoLinesOnly)
{
    PeriodicCaller sut(1h, "led", doNothing);
    log.clear();

    sut.stop();

    EXPECT_THAT(log.lines(), ElementsAre(debugLine("+stop()"), debugLine("-stop()")));
}

TEST_F(PeriodicCallerTest, SecondStopLogsTwoLinesOnly)
{
    PeriodicCaller sut(1h, "led", doNothing);
    startAndStop(sut);
    log.clear();

    sut.stop();

    EXPECT_THAT(log.lines(), ElementsAre(debugLine("+stop()"), debugLine("-stop()")));
}

TEST_F(PeriodicCallerTest, DestructionOfARunningCallerStopsItAndHasNoClosingLine)
{
    {
        PeriodicCaller sut(1h, "led", doNothing);
        sut.start();
        ASSERT_TRUE(waits.waitForCount(1));
        log.clear();
    }

    EXPECT_THAT(log.lines(), ElementsAre(debugLine("+destructor"), debugLine("+stop()"), stopping,
                                         debugLine("-periodicCallerThread(name = led)"), debugLine("-stop()")));
}

TEST_F(PeriodicCallerTest, DestructionOfACallerNeverStartedLogsItsStop)
{
    {
        PeriodicCaller const sut(1h, "led", doNothing);
        log.clear();
    }

    EXPECT_THAT(log.lines(), ElementsAre(debugLine("+destructor"), debugLine("+stop()"), debugLine("-stop()")));
}

TEST_F(PeriodicCallerTest, AnEmptyNameKeepsItsQuotes)
{
    PeriodicCaller sut(1h, "", doNothing);

    sut.start();

    EXPECT_THAT([&] { sut.start(); }, throwsAlreadyStarted(""));
    EXPECT_TRUE(log.waitFor(
        isLine(Log::Severity::Debug, "Halden::Tavro::Utils::PeriodicCaller ''", "+periodicCallerThread(name = )")));
}

TEST_F(PeriodicCallerTest, ANameIsNeverTakenAsAFormat)
{
    PeriodicCaller sut(1h, "50%s'", doNothing);

    sut.start();

    EXPECT_THAT([&] { sut.start(); }, throwsAlreadyStarted("50%s'"));
    EXPECT_TRUE(log.waitFor(isLine(Log::Severity::Debug, "Halden::Tavro::Utils::PeriodicCaller '50%s''",
                                   "+periodicCallerThread(name = 50%s')")));
}

// Start and stop

TEST_F(PeriodicCallerTest, SecondStartThrowsAndLeavesTheWorkerAlone)
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

TEST_F(PeriodicCallerTest, StartsAgainAfterAStop)
{
    std::atomic<int> calls{0};
    PeriodicCaller sut(0us, "led", [&](auto const&) { ++calls; });
    startAndStop(sut);
    int const callsBefore = calls;

    sut.start();

    EXPECT_TRUE(waitFor([&] { return calls > callsBefore; }));
}

TEST_F(PeriodicCallerTest, StopEndsTheWaitWithoutACall)
{
    std::atomic<int> calls{0};
    PeriodicCaller sut(1h, "led", [&](auto const&) { ++calls; });
    sut.start();
    ASSERT_TRUE(waits.waitForCount(1));

    sut.stop();

    EXPECT_EQ(calls, 0);
}

TEST_F(PeriodicCallerTest, StopBetweenTheWorkersLastLookAndItsWaitIsNotLost)
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

    EXPECT_EQ(stopped.wait_for(10s), std::future_status::ready);
}

TEST_F(PeriodicCallerTest, StopReturnsOnlyAfterTheCallInProgress)
{
    std::promise<void> entered;
    std::promise<void> release;
    std::atomic<bool> finished{false};
    skippedWaits = 1;
    PeriodicCaller sut(1h, "led",
                       [&, mayEnd = release.get_future().share()](auto const&)
                       {
                           entered.set_value();
                           mayEnd.wait_for(20s);
                           finished = true;
                       });
    sut.start();
    ASSERT_EQ(entered.get_future().wait_for(10s), std::future_status::ready);

    auto stopped = std::async(std::launch::async,
                              [&]
                              {
                                  sut.stop();
                                  return finished.load();
                              });
    EXPECT_TRUE(log.waitFor(stopping));
    EXPECT_EQ(stopped.wait_for(50ms), std::future_status::timeout);
    release.set_value();

    EXPECT_TRUE(stopped.get());
}

TEST_F(PeriodicCallerTest, StartDuringACallWaitsForItsEndAndThrows)
{
    std::promise<void> entered;
    std::promise<void> release;
    std::atomic<bool> finished{false};
    skippedWaits = 1;
    PeriodicCaller sut(1h, "led",
                       [&, mayEnd = release.get_future().share()](auto const&)
                       {
                           entered.set_value();
                           mayEnd.wait_for(20s);
                           finished = true;
                       });
    sut.start();
    ASSERT_EQ(entered.get_future().wait_for(10s), std::future_status::ready);
    log.clear();

    auto secondStart = std::async(std::launch::async,
                                  [&]
                                  {
                                      EXPECT_THAT([&] { sut.start(); }, throwsAlreadyStarted("led"));
                                      return finished.load();
                                  });
    EXPECT_TRUE(log.waitFor(debugLine("+start()")));
    EXPECT_EQ(secondStart.wait_for(50ms), std::future_status::timeout);
    release.set_value();

    EXPECT_TRUE(secondStart.get());
}

TEST_F(PeriodicCallerTest, StartLogsItsEndBeforeItReleasesTheMutex)
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

TEST_F(PeriodicCallerTest, ACallerWhoseThreadCannotBeCreatedCanBeStartedLater)
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

TEST_F(PeriodicCallerTest, ACallerWhoseThreadCouldNotBeCreatedStopsAsOneNeverStarted)
{
    PeriodicCaller sut(1h, "led", doNothing);
    pthreadCreate.failCall(1, EAGAIN, 0);
    EXPECT_THROW(sut.start(), std::system_error);
    log.clear();

    sut.stop();

    EXPECT_THAT(log.lines(), ElementsAre(debugLine("+stop()"), debugLine("-stop()")));
}

TEST_F(PeriodicCallerTest, AHundredStartsAndStopsLeaveNothingBehind)
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
    auto const descriptors = openDescriptors();
    auto const threads = runningThreads();
    auto const blocks = heapBlocks();

    for (int i = 0; i < 100; ++i)
    {
        startAndStopOne();
    }

    EXPECT_EQ(heapBlocks(), blocks);
    EXPECT_EQ(openDescriptors(), descriptors);
    EXPECT_TRUE(waitFor([&] { return runningThreads() <= threads; })); // a joined thread is listed a moment longer
    EXPECT_EQ(pthreadCreate.count(), 101U);
    EXPECT_GT(heapAllocations(), 100U); // they are counted at all
}

// Calls

TEST_F(PeriodicCallerTest, CallsOnOneThreadOfItsOwn)
{
    Recorded<std::thread::id> callers;
    PeriodicCaller sut(0us, "led", [&](auto const&) { callers.add(std::this_thread::get_id()); });

    sut.start();

    ASSERT_TRUE(callers.waitForCount(3));
    sut.stop();
    EXPECT_THAT(callers.get(), Each(callers.get().front()));
    EXPECT_NE(callers.get().front(), std::this_thread::get_id());
}

TEST_F(PeriodicCallerTest, HoldsItsMutexDuringACall)
{
    std::promise<bool> freeDuringCall;
    skippedWaits = 1;
    PeriodicCaller sut(1h, "led", [&](auto const&) { freeDuringCall.set_value(objectsMutexIsFree()); });

    sut.start();

    auto known = freeDuringCall.get_future();
    ASSERT_EQ(known.wait_for(10s), std::future_status::ready);
    EXPECT_FALSE(known.get());
}

TEST_F(PeriodicCallerTest, ReleasesItsMutexWhileItWaits)
{
    PeriodicCaller sut(1h, "led", doNothing);

    sut.start();

    ASSERT_TRUE(waits.waitForCount(1));
    EXPECT_TRUE(waitFor([&] { return objectsMutexIsFree(); }));
}

TEST_F(PeriodicCallerTest, WaitsForThePeriodOnTheMonotonicClockBeforeEachCall)
{
    std::atomic<int> calls{0};
    skippedWaits = 2;
    PeriodicCaller sut(1h, "led", [&](auto const&) { ++calls; });

    sut.start();

    ASSERT_TRUE(waits.waitForCount(3));
    sut.stop();
    EXPECT_EQ(calls, 2);
    EXPECT_THAT(waits.get(), Each(Field(&Wait::clock, CLOCK_MONOTONIC)));
    EXPECT_THAT(waits.get(), Each(Field(&Wait::left, AllOf(Le(1h), Gt(50min)))));
}

TEST_F(PeriodicCallerTest, PausesFromTheEndOfACallAndNeverCatchesUp)
{
    skippedWaits = 2;
    PeriodicCaller sut(1h, "led", [](auto const&) { monotonicLead += 3h; });

    sut.start();

    ASSERT_TRUE(waits.waitForCount(3));
    EXPECT_THAT(waits.get(), Each(Field(&Wait::left, AllOf(Le(1h), Gt(50min)))));
    EXPECT_GE(waits.get()[1].deadline - waits.get()[0].deadline, 4h);
    EXPECT_GE(waits.get()[2].deadline - waits.get()[1].deadline, 4h);
}

TEST_F(PeriodicCallerTest, ASpuriousWakeUpNeitherCallsNorMovesTheDeadline)
{
    std::promise<void> called;
    std::atomic<int> spurious{3};
    condClockwait.replace(
        [&](auto* condition, auto* mutex, auto clock, auto* deadline)
        {
            waits.add({clock, toNanoseconds(*deadline), {}});
            if (spurious-- > 0)
            {
                return 0;
            }
            return condClockwait.passOn(condition, mutex, clock, deadline);
        });
    PeriodicCaller sut(1h, "led", [&](auto const&) { called.set_value(); });

    sut.start();

    ASSERT_TRUE(waits.waitForCount(4));
    sut.stop();
    EXPECT_EQ(called.get_future().wait_for(0s), std::future_status::timeout);
    EXPECT_THAT(waits.get(), Each(Field(&Wait::deadline, waits.get().front().deadline)));
}

TEST_F(PeriodicCallerTest, ZeroPeriodCallsBackToBack)
{
    Recorded<microseconds> calls;
    PeriodicCaller sut(0us, "led", [&](auto const& elapsed) { calls.add(elapsed); });

    sut.start();

    EXPECT_TRUE(calls.waitForCount(100));
    sut.stop();
    EXPECT_THAT(waits.get(), Each(Field(&Wait::left, Le(0ns))));
}

TEST_F(PeriodicCallerTest, NegativePeriodsCallBackToBack)
{
    for (microseconds const period : {microseconds(-1), microseconds::min()})
    {
        Recorded<microseconds> calls;
        PeriodicCaller sut(period, "led", [&](auto const& elapsed) { calls.add(elapsed); });

        sut.start();

        EXPECT_TRUE(calls.waitForCount(100));
        sut.stop();
        EXPECT_THAT(waits.get(), Each(Field(&Wait::left, Le(0ns))));
    }
}

TEST_F(PeriodicCallerTest, TheGreatestPeriodSleepsUntilStopped)
{
    std::atomic<int> calls{0};
    PeriodicCaller sut(microseconds::max(), "led", [&](auto const&) { ++calls; });
    sut.start();
    ASSERT_TRUE(waits.waitForCount(1));

    sut.stop();

    EXPECT_EQ(calls, 0);
    EXPECT_THAT(waits.get(), Each(Field(&Wait::left, Gt(30 * 365 * 24h))));
}

// Elapsed time

TEST_F(PeriodicCallerTest, TellsTheWallClockTimeFromTheEndOfTheCallBefore)
{
    Recorded<microseconds> calls;
    wallClock = nanoseconds(1000h).count();
    wallClockStep = nanoseconds(1s + 7us).count();
    skippedWaits = 3;
    PeriodicCaller sut(1h, "led",
                       [&](auto const& elapsed)
                       {
                           calls.add(elapsed);
                           wallClock += nanoseconds(300ms).count();
                       });

    sut.start();

    ASSERT_TRUE(calls.waitForCount(3));
    sut.stop();
    EXPECT_THAT(calls.get(), ElementsAre(1000007us, 1000007us, 1000007us));
}

TEST_F(PeriodicCallerTest, TheElapsedTimeJumpsWithTheWallClockWhileThePauseDoesNot)
{
    Recorded<microseconds> calls;
    wallClock = nanoseconds(1000h).count();
    wallClockStep = nanoseconds(-100h).count();
    skippedWaits = 2;
    PeriodicCaller sut(1h, "led", [&](auto const& elapsed) { calls.add(elapsed); });

    sut.start();

    ASSERT_TRUE(waits.waitForCount(3));
    EXPECT_THAT(calls.get(), ElementsAre(-100h, -100h));
    EXPECT_THAT(waits.get(), Each(Field(&Wait::left, AllOf(Le(1h), Gt(50min)))));
}

TEST_F(PeriodicCallerTest, TheElapsedTimeIsTruncatedTowardsZero)
{
    Recorded<microseconds> calls;
    wallClock = nanoseconds(1000h).count();
    wallClockStep = 1999;
    skippedWaits = 2;
    PeriodicCaller sut(1h, "led",
                       [&](auto const& elapsed)
                       {
                           calls.add(elapsed);
                           wallClockStep = -1999;
                       });

    sut.start();

    ASSERT_TRUE(calls.waitForCount(2));
    EXPECT_THAT(calls.get(), ElementsAre(1us, -1us));
}

TEST_F(PeriodicCallerTest, AfterARestartTheElapsedTimeCountsFromTheNewThread)
{
    Recorded<microseconds> calls;
    wallClock = nanoseconds(1000h).count();
    PeriodicCaller sut(1h, "led", [&](auto const& elapsed) { calls.add(elapsed); });
    startAndStop(sut);
    wallClock += nanoseconds(10h).count();
    wallClockStep = nanoseconds(1s).count();
    skippedWaits = 1;

    sut.start();

    ASSERT_TRUE(calls.waitForCount(1));
    EXPECT_THAT(calls.get(), ElementsAre(1s));
}

// Exceptions

class FailingPeriodicCallerTest : public PeriodicCallerTest
{
protected:
    FailingPeriodicCallerTest()
    {
        log.expect(endedByException);
        skippedWaits = 1;
    }

    /// Starts it and waits until its thread has ended by itself.
    void startAndFail()
    {
        sut.start();
        ASSERT_TRUE(log.waitFor(debugLine("-periodicCallerThread(name = led)")));
    }

    std::atomic<int> calls{0};
    PeriodicCaller sut{1h, "led",
                       [this](auto const&)
                       {
                           if (calls++ == 0)
                           {
                               throw std::runtime_error("broken");
                           }
                       }};
};

TEST_F(FailingPeriodicCallerTest, AnExceptionOfTheCallbackIsLoggedOnceAndEndsTheThread)
{
    startAndFail();

    EXPECT_EQ(calls, 1);
    EXPECT_EQ(log.count(endedByException), 1U);
    EXPECT_THAT(log.lines().end()[-2], endedByException);
    EXPECT_THAT(log.lines().back(), debugLine("-periodicCallerThread(name = led)"));
}

TEST_F(FailingPeriodicCallerTest, TheExceptionIsLoggedUnderTheMutexTheEndOfTheThreadIsNot)
{
    std::vector<bool> freeAtLine; // only the worker writes while it runs
    log.onLine(
        [&](LogLine const& line)
        {
            if (line.severity == Log::Severity::Critical || line.text == "-periodicCallerThread(name = led)")
            {
                freeAtLine.push_back(objectsMutexIsFree());
            }
        });

    startAndFail();

    sut.stop();
    EXPECT_THAT(freeAtLine, ElementsAre(false, true));
    log.onLine(nullptr);
}

TEST_F(FailingPeriodicCallerTest, AfterAnExceptionStartThrowsUntilStopped)
{
    startAndFail();

    EXPECT_THAT([this] { sut.start(); }, throwsAlreadyStarted("led"));
    EXPECT_THAT([this] { sut.start(); }, throwsAlreadyStarted("led"));
    sut.stop();
    skippedWaits = 1;
    sut.start();

    EXPECT_TRUE(waitFor([this] { return calls == 2; }));
    EXPECT_EQ(pthreadCreate.count(), 2U);
}

TEST_F(FailingPeriodicCallerTest, StopAfterAnExceptionJoinsTheEndedThread)
{
    startAndFail();
    log.clear();

    sut.stop();

    EXPECT_THAT(log.lines(), ElementsAre(debugLine("+stop()"), stopping, debugLine("-stop()")));
}

TEST_F(PeriodicCallerTest, AnEmptyCallbackEndsTheThreadAsABadFunctionCall)
{
    auto const badCall = isLine(Log::Severity::Critical, loggerOfLed,
                                "PeriodicCaller thread stop because of exception. What: " +
                                    std::string(std::bad_function_call().what()));
    log.expect(badCall);
    skippedWaits = 1;
    PeriodicCaller sut(1h, "led", nullptr);

    sut.start();

    EXPECT_TRUE(log.waitFor(debugLine("-periodicCallerThread(name = led)")));
    EXPECT_EQ(log.count(badCall), 1U);
}

TEST_F(PeriodicCallerTest, AnythingElseThrownEndsTheProcess)
{
    auto const result = runInChild(
        []
        {
            PeriodicCaller sut(0us, "led", [](auto const&) { throw 42; });
            sut.start();
            std::this_thread::sleep_for(15s); // the end of the process comes long before
            return 0;
        });

    EXPECT_EQ(result.signal, std::optional(SIGABRT));
    EXPECT_THAT(result.output, HasSubstr("terminate called after throwing an instance of 'int'"));
}

}
