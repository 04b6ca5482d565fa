#include "scheduling/ExecutorTest.h"
#include "support/LogCapture.h"
#include "support/Resources.h"
#include "support/WaitFor.h"

#include <utils/PcmExecutor.h>

#include <boost/system/system_error.hpp>

#include <gmock/gmock.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <future>
#include <iterator>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace Halden::Tavro::Utils
{

namespace
{

using namespace std::chrono_literals;
using namespace testing;
using namespace TestSupport;

using Log::Severity;

using PcmExecutorThreadPoolTest = ExecutorTest;

constexpr auto loggerName = "Halden::Tavro::Utils::PcmExecutorThreadPool";
constexpr auto limit = 10s;
/// How long something is watched that must not happen.
constexpr auto watchTime = 100ms;

/// Runs a batch on a thread of its own, which is the calling thread then.
std::future<void> executeAside(PeriodicCallerManagerExecutorIfc& executor, Batch const& batch)
{
    return std::async(std::launch::async, [&executor, &batch] { executor.execute(batch); });
}

TEST_F(PcmExecutorThreadPoolTest, EmptyBatchLogsBothLinesWithTheCountZero)
{
    PcmExecutorThreadPool sut;

    EXPECT_THAT(linesAbout({}, sut),
                ElementsAre(isLine(Severity::Trace, loggerName, "executing 0 items using thread pool"),
                            isLine(Severity::Trace, loggerName, "executed 0 items using thread pool")));
}

TEST_F(PcmExecutorThreadPoolTest, AllItemsRunBetweenTheTwoLines)
{
    std::mutex mutex;
    std::vector<std::string> events; // guarded by mutex
    auto const add = [&](std::string const& event)
    {
        std::lock_guard const lock(mutex);
        events.push_back(event);
    };
    LogCapture log;
    log.onLine([&add](LogLine const& line) { add(line.text); });
    PcmExecutorThreadPool sut;
    Batch const batch{makeItem([&add] { add("ran"); }), makeItem([&add] { add("ran"); })};

    sut.execute(batch);

    EXPECT_THAT(events,
                ElementsAre("executing 2 items using thread pool", "ran", "ran", "executed 2 items using thread pool"));
}

TEST_F(PcmExecutorThreadPoolTest, LogsNothingBelowTrace)
{
    PcmExecutorThreadPool sut;

    EXPECT_THAT(linesAbout({makeItem([] {})}, sut, Severity::Debug), IsEmpty());
}

TEST_F(PcmExecutorThreadPoolTest, HasSixThreadsPerHardwareThread)
{
    for (unsigned const count : {1U, 2U, 5U})
    {
        hardwareThreads = count;
        pthreadCreate.reset();
        PcmExecutorThreadPool const sut;

        EXPECT_EQ(pthreadCreate.count(), 6 * count);
    }
}

TEST_F(PcmExecutorThreadPoolTest, BatchesMakeNoFurtherThreads)
{
    PcmExecutorThreadPool sut;
    pthreadCreate.reset();

    sut.execute(Batch(50, makeItem([] {})));

    EXPECT_EQ(pthreadCreate.count(), 0U);
}

TEST_F(PcmExecutorThreadPoolTest, EachItemRunsExactlyOncePerBatch)
{
    constexpr int batches = 500;
    constexpr std::size_t size = 20;
    std::vector<std::atomic<int>> runs(size);
    Batch batch;
    for (auto& count : runs)
    {
        batch.push_back(makeItem([&count] { ++count; }));
    }
    PcmExecutorThreadPool sut;

    for (int done = 1; done <= batches; ++done)
    {
        sut.execute(batch);
        ASSERT_THAT(std::vector<int>(runs.begin(), runs.end()), Each(done));
    }
}

TEST_F(PcmExecutorThreadPoolTest, ItemsOfABatchRunSideBySide)
{
    std::atomic<int> started{0};
    std::atomic<int> met{0};
    auto const item = [&]
    {
        ++started;
        met += waitFor([&started] { return started == 3; }) ? 1 : 0;
    };
    Batch const batch{makeItem(item), makeItem(item), makeItem(item)};
    PcmExecutorThreadPool sut;

    sut.execute(batch);

    EXPECT_EQ(met, 3);
}

TEST_F(PcmExecutorThreadPoolTest, PoolAndCallingThreadTogetherBoundTheItemsInProgress)
{
    hardwareThreads = 1;
    std::size_t const bound = 6 + 1;
    std::atomic<std::size_t> started{0};
    std::promise<void> release;
    auto const released = release.get_future().share();
    auto const item = [&started, released]
    {
        ++started;
        released.wait_for(limit);
    };
    Batch batch;
    std::generate_n(std::back_inserter(batch), bound + 1, [&item] { return makeItem(item); });
    PcmExecutorThreadPool sut;

    // The calling thread may find every item taken that it comes to, so only the pool's share is certain.
    auto const execution = executeAside(sut, batch);
    bool const poolIsBusy = waitFor([&started] { return started >= 6; });
    std::this_thread::sleep_for(watchTime);
    std::size_t const inProgress = started;
    release.set_value();

    EXPECT_TRUE(poolIsBusy);
    EXPECT_LE(inProgress, bound);
    EXPECT_TRUE(becomesReady(execution, limit));
    EXPECT_EQ(started, bound + 1);
}

TEST_F(PcmExecutorThreadPoolTest, ReturnsOnlyWhenTheSlowestItemHasFinished)
{
    std::promise<void> release;
    std::atomic<int> finished{0};
    Batch const batch{makeItem([&finished] { ++finished; }),
                      makeItem(
                          [&, released = release.get_future().share()]
                          {
                              released.wait_for(limit);
                              ++finished;
                          }),
                      makeItem([&finished] { ++finished; })};
    PcmExecutorThreadPool sut;

    auto const execution = executeAside(sut, batch);
    EXPECT_TRUE(waitFor([&finished] { return finished == 2; }));
    EXPECT_FALSE(becomesReady(execution, watchTime));
    release.set_value();

    EXPECT_TRUE(becomesReady(execution, limit));
    EXPECT_EQ(finished, 3);
}

TEST_F(PcmExecutorThreadPoolTest, CallingThreadRunsFromTheFrontWhatNoPoolThreadHasStarted)
{
    std::vector<std::pair<int, std::thread::id>> runs;
    Batch batch;
    for (int i = 0; i < 5; ++i)
    {
        batch.push_back(makeItem([&runs, i] { runs.emplace_back(i, std::this_thread::get_id()); }));
    }
    HeldThreads poolThreads;
    PcmExecutorThreadPool sut;

    sut.execute(batch);

    auto const self = std::this_thread::get_id();
    auto const inOrder =
        ElementsAre(std::pair(0, self), std::pair(1, self), std::pair(2, self), std::pair(3, self), std::pair(4, self));
    EXPECT_THAT(runs, inOrder);
    poolThreads.release();
    // The tasks that come too late are over when a batch behind them has run on the pool.
    std::atomic<bool> ranOnPool{false};
    auto const probe = makeItem([&ranOnPool, self] { ranOnPool = ranOnPool || std::this_thread::get_id() != self; });
    EXPECT_TRUE(waitFor(
        [&]
        {
            sut.execute(Batch(12, probe));
            return ranOnPool.load();
        }));
    EXPECT_THAT(runs, inOrder);
}

TEST_F(PcmExecutorThreadPoolTest, ThreadsOfThePoolTakeTheItemsFromTheFront)
{
    hardwareThreads = 1;
    std::mutex mutex;
    std::vector<int> started; // guarded by mutex
    std::promise<void> release;
    auto const hold = [&, released = release.get_future().share()](int number)
    {
        {
            std::lock_guard const lock(mutex);
            started.push_back(number);
        }
        released.wait_for(limit);
    };
    Batch batch;
    for (int i = 0; i < 12; ++i)
    {
        batch.push_back(makeItem([&hold, i] { hold(i); }));
    }
    PcmExecutorThreadPool sut;

    // The calling thread comes to the first item, and runs it or waits for it, so six are in progress.
    auto const execution = executeAside(sut, batch);
    bool const areBusy = waitFor(
        [&]
        {
            std::lock_guard const lock(mutex);
            return started.size() >= 6;
        });
    std::vector<int> inProgress;
    {
        std::lock_guard const lock(mutex);
        inProgress = started;
    }
    release.set_value();

    EXPECT_TRUE(areBusy);
    EXPECT_THAT(inProgress, UnorderedElementsAre(0, 1, 2, 3, 4, 5));
    EXPECT_TRUE(becomesReady(execution, limit));
}

TEST_F(PcmExecutorThreadPoolTest, ExceptionOutOfAnItemIsNeverFetched)
{
    auto const throwing = std::make_shared<ThrowingItem>();
    std::atomic<int> calls{0};
    PcmExecutorThreadPool sut;

    sut.execute({throwing, makeItem([&calls] { ++calls; }), throwing});

    EXPECT_EQ(throwing->executions, 2);
    EXPECT_EQ(calls, 1);
}

TEST_F(PcmExecutorThreadPoolTest, ItemsAreLetGoAfterTheBatch)
{
    Batch batch{makeItem([] {}), makeItem([] {})};
    std::vector<std::weak_ptr<PcmItemIfc>> const items(batch.begin(), batch.end());
    PcmExecutorThreadPool sut;

    sut.execute(batch);
    batch.clear();

    EXPECT_TRUE(waitFor(
        [&items] { return std::all_of(items.begin(), items.end(), [](auto const& item) { return item.expired(); }); }));
}

TEST_F(PcmExecutorThreadPoolTest, DestructionLetsGoOfQueuedTasksWithoutRunningAnItemAgain)
{
    int calls = 0; // on the calling thread alone
    Batch batch(100, makeItem([&calls] { ++calls; }));
    std::weak_ptr<PcmItemIfc> const item = batch.front();
    HeldThreads poolThreads;
    auto sut = std::make_unique<PcmExecutorThreadPool>();
    sut->execute(batch);
    batch.clear();

    poolThreads.release();
    sut.reset();

    EXPECT_EQ(calls, 100);
    EXPECT_TRUE(item.expired());
}

TEST_F(PcmExecutorThreadPoolTest, WithoutHardwareThreadsTheCallingThreadRunsEveryItemInOrder)
{
    hardwareThreads = 0;
    std::vector<std::pair<int, std::thread::id>> runs;
    Batch batch;
    for (int i = 0; i < 3; ++i)
    {
        batch.push_back(makeItem([&runs, i] { runs.emplace_back(i, std::this_thread::get_id()); }));
    }
    LogCapture const log;
    PcmExecutorThreadPool sut;

    sut.execute(batch);

    auto const self = std::this_thread::get_id();
    EXPECT_EQ(pthreadCreate.count(), 0U);
    EXPECT_THAT(runs, ElementsAre(std::pair(0, self), std::pair(1, self), std::pair(2, self)));
    EXPECT_THAT(log.lines(), ElementsAre(isLine(Severity::Trace, loggerName, "executing 3 items using thread pool"),
                                         isLine(Severity::Trace, loggerName, "executed 3 items using thread pool")));
}

TEST_F(PcmExecutorThreadPoolTest, WithoutHardwareThreadsNothingKeepsAnItemAfterTheBatch)
{
    hardwareThreads = 0;
    Batch batch{makeItem([] {})};
    std::weak_ptr<PcmItemIfc> const item = batch.front();
    PcmExecutorThreadPool sut;

    sut.execute(batch);
    batch.clear();

    EXPECT_TRUE(item.expired());
}

/// With two hardware threads.
class PcmExecutorThreadPoolFailureTest : public ExecutorTest, public WithParamInterface<std::size_t>
{
};

INSTANTIATE_TEST_SUITE_P(AtAnyOfTwelve, PcmExecutorThreadPoolFailureTest, Range<std::size_t>(1, 13));

TEST_P(PcmExecutorThreadPoolFailureTest, ThreadThatCannotBeMadeThrowsASystemErrorOfBoostAndLeavesNoThread)
{
    std::size_t const threadsBefore = runningThreads();
    pthreadCreate.failCall(GetParam(), EAGAIN, 0);

    try
    {
        PcmExecutorThreadPool const sut;
        FAIL() << "nothing thrown";
    }
    catch (boost::system::system_error const& error)
    {
        EXPECT_EQ(error.code(), boost::system::error_code(EAGAIN, boost::system::system_category()));
        EXPECT_THAT(error.what(), StartsWith("thread: Resource temporarily unavailable"));
    }
    EXPECT_EQ(pthreadCreate.count(), GetParam());
    EXPECT_TRUE(
        waitFor([&] { return runningThreads() <= threadsBefore; })); // a joined thread is listed a moment longer
}

}

}
