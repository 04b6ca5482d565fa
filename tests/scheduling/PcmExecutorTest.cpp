#include <utils/PcmExecutor.h>

#include "support/CallDouble.h"
#include "support/ChildProcess.h"
#include "support/LogCapture.h"
#include "support/VirtualSlot.h"
#include "support/WaitFor.h"

#include <boost/system/system_error.hpp>

#include <gmock/gmock.h>

#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <future>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

namespace Halden::Tavro::Utils
{

namespace
{

using namespace std::chrono_literals;
using namespace TestSupport;

using Log::Severity;
using Strategy = PeriodicCallerManager::ExecutionStrategy;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::StrEq;
using testing::ThrowsMessage;

using Batch = std::vector<std::shared_ptr<PcmItemIfc>>;
using ThreadFunction = void* (*)(void*);

constexpr auto limit = 10s;
/// How long something is watched that must not happen.
constexpr auto watchTime = 100ms;

std::string const sequentialName = "Halden::Tavro::Utils::PcmExecutorSequential";
std::string const poolName = "Halden::Tavro::Utils::PcmExecutorThreadPool";

CallDouble<int(pthread_t*, pthread_attr_t const*, ThreadFunction, void*)> pthreadCreate{"pthread_create"};
std::atomic<unsigned> hardwareThreads{2};

extern "C" int pthread_create(pthread_t* thread, pthread_attr_t const* attributes, ThreadFunction function,
                              void* argument) noexcept
{
    return pthreadCreate(thread, attributes, function, argument);
}

/// Keeps threads that are made while it lives from starting their work, until it ends or releases them.
class HeldThreads
{
public:
    HeldThreads()
    {
        pthreadCreate.replace([this](pthread_t* thread, pthread_attr_t const* attributes, ThreadFunction function,
                                     void* argument) { return create(thread, attributes, function, argument); });
    }
    ~HeldThreads()
    {
        pthreadCreate.reset();
        release();
    }

    HeldThreads(HeldThreads const&) = delete;
    HeldThreads& operator=(HeldThreads const&) = delete;

    void release()
    {
        if (!std::exchange(released, true))
        {
            gate.set_value();
        }
    }

private:
    struct Start
    {
        std::shared_future<void> opened;
        ThreadFunction function;
        void* argument;
    };

    int create(pthread_t* thread, pthread_attr_t const* attributes, ThreadFunction function, void* argument) const
    {
        auto start = std::make_unique<Start>(Start{opened, function, argument});
        int const error = pthreadCreate.passOn(thread, attributes, &HeldThreads::run, start.get());
        if (error == 0)
        {
            static_cast<void>(start.release()); // run() owns it now
        }
        return error;
    }

    static void* run(void* argument)
    {
        std::unique_ptr<Start> const start(static_cast<Start*>(argument));
        start->opened.wait_for(limit);
        return start->function(start->argument);
    }

    std::promise<void> gate;
    std::shared_future<void> opened{gate.get_future()};
    bool released{false};
};

// The interface has no virtual destructor on purpose.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"

/// An item that lets the exceptions of its function out.
class ThrowingItem final : public PcmItemIfc
{
public:
    void execute() override
    {
        ++executions;
        throw std::runtime_error("out of the item");
    }
    bool isDueWithin(std::chrono::milliseconds /*within*/) const override { return true; }
    std::chrono::steady_clock::time_point nextDueTime() const override { return {}; }
    std::chrono::milliseconds period() const override { return 1ms; }
    void forbidFurtherExecutions() override {}
    void waitEndOfExecutionIfAny() override {}

    std::atomic<int> executions{0};
};

#pragma GCC diagnostic pop

std::shared_ptr<PcmItemIfc> makeItem(std::function<void()> function)
{
    return std::make_shared<PcmItem>(std::move(function), 1ms);
}

/// Runs a batch on a thread of its own, which is the calling thread then.
std::future<void> executeAside(PeriodicCallerManagerExecutorIfc& executor, Batch const& batch)
{
    return std::async(std::launch::async, [&executor, &batch] { executor.execute(batch); });
}

bool isReadyWithin(std::future<void> const& future, std::chrono::milliseconds time)
{
    return future.wait_for(time) == std::future_status::ready;
}

class PcmExecutorTest : public testing::Test
{
protected:
    PcmExecutorTest()
    {
        pthreadCreate.reset();
        hardwareThreads = 2;
    }
    ~PcmExecutorTest() override
    {
        pthreadCreate.reset();
        hardwareThreads = 2;
    }
};

using PcmExecutorInterfaceTest = PcmExecutorTest;
using PcmExecutorSequentialTest = PcmExecutorTest;
using PcmExecutorThreadPoolTest = PcmExecutorTest;
using MakeExecutorTest = PcmExecutorTest;

TEST_F(PcmExecutorInterfaceTest, ExecuteFollowsTheTwoSlotsOfTheVirtualDestructor)
{
    EXPECT_TRUE(std::has_virtual_destructor_v<PeriodicCallerManagerExecutorIfc>);
    EXPECT_EQ(virtualSlot(&PeriodicCallerManagerExecutorIfc::execute), 2);
}

TEST_F(PcmExecutorInterfaceTest, IsPureAndWithoutData)
{
    EXPECT_TRUE(std::is_abstract_v<PeriodicCallerManagerExecutorIfc>);
    EXPECT_EQ(sizeof(PeriodicCallerManagerExecutorIfc), sizeof(void*));
}

TEST_F(PcmExecutorInterfaceTest, ExecuteIsDeclaredNonThrowing)
{
    Batch const batch;
    EXPECT_TRUE(noexcept(std::declval<PeriodicCallerManagerExecutorIfc&>().execute(batch)));
    EXPECT_TRUE(noexcept(std::declval<PcmExecutorSequential&>().execute(batch)));
    EXPECT_TRUE(noexcept(std::declval<PcmExecutorThreadPool&>().execute(batch)));
}

template <typename Executor>
void expectBasesOfAnExecutor()
{
    EXPECT_TRUE((std::is_convertible_v<Executor*, PeriodicCallerManagerExecutorIfc*>));
    EXPECT_TRUE((std::is_base_of_v<Log::Logger, Executor>));
    EXPECT_FALSE((std::is_convertible_v<Executor*, Log::Logger*>));
    EXPECT_FALSE(std::is_copy_constructible_v<Executor>);
    EXPECT_FALSE(std::is_move_constructible_v<Executor>);
}

TEST_F(PcmExecutorInterfaceTest, ExecutorsHideTheirLoggerAndCannotBeCopied)
{
    expectBasesOfAnExecutor<PcmExecutorSequential>();
    expectBasesOfAnExecutor<PcmExecutorThreadPool>();
}

/// Derived executors name their loggers themselves, as only a virtual base lets them.
struct NamedSequential : PcmExecutorSequential
{
    NamedSequential()
        : Log::Logger("service executor", "", std::make_shared<Log::LoggerImpl>())
    {
    }
};

struct NamedThreadPool : PcmExecutorThreadPool
{
    NamedThreadPool()
        : Log::Logger("service executor", "", std::make_shared<Log::LoggerImpl>())
    {
    }
};

TEST_F(PcmExecutorInterfaceTest, DerivedExecutorsNameTheVirtualLoggerBase)
{
    LogCapture const log;

    NamedSequential().execute({});
    NamedThreadPool().execute({});

    EXPECT_THAT(log.lines(),
                ElementsAre(isLine(Severity::Trace, "service executor", "executing 0 items sequentialy"),
                            isLine(Severity::Trace, "service executor", "executed 0 items sequentialy"),
                            isLine(Severity::Trace, "service executor", "executing 0 items using thread pool"),
                            isLine(Severity::Trace, "service executor", "executed 0 items using thread pool")));
}

TEST_F(PcmExecutorSequentialTest, EmptyBatchLogsBothLinesWithTheCountZero)
{
    LogCapture const log;
    PcmExecutorSequential sut;

    sut.execute({});

    EXPECT_THAT(log.lines(), ElementsAre(isLine(Severity::Trace, sequentialName, "executing 0 items sequentialy"),
                                         isLine(Severity::Trace, sequentialName, "executed 0 items sequentialy")));
}

TEST_F(PcmExecutorSequentialTest, ItemsRunInTheirOrderBetweenTheTwoLines)
{
    std::vector<std::string> events;
    LogCapture log;
    log.onLine([&events](LogLine const& line) { events.push_back(line.text); });
    PcmExecutorSequential sut;
    auto const itemOf = [&events](char const* name)
    { return makeItem([&events, name] { events.emplace_back(name); }); };
    Batch const batch{itemOf("A"), itemOf("B"), itemOf("C")};

    sut.execute(batch);

    EXPECT_THAT(events, ElementsAre("executing 3 items sequentialy", "A", "B", "C", "executed 3 items sequentialy"));
}

TEST_F(PcmExecutorSequentialTest, ItemsRunOnTheCallingThread)
{
    std::vector<std::thread::id> threads;
    PcmExecutorSequential sut;
    Batch const batch(3, makeItem([&threads] { threads.push_back(std::this_thread::get_id()); }));

    sut.execute(batch);

    EXPECT_THAT(threads,
                ElementsAre(std::this_thread::get_id(), std::this_thread::get_id(), std::this_thread::get_id()));
}

TEST_F(PcmExecutorSequentialTest, LogsNothingBelowTrace)
{
    LogCapture const log(Severity::Debug);
    PcmExecutorSequential sut;

    sut.execute({makeItem([] {})});

    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(PcmExecutorSequentialTest, MakesNoThread)
{
    PcmExecutorSequential sut;

    sut.execute({makeItem([] {})});

    EXPECT_EQ(pthreadCreate.count(), 0U);
}

TEST_F(PcmExecutorSequentialTest, ItemThatThrowsDoesNotKeepTheOthersFromRunning)
{
    LogCapture log;
    log.expect(isLine(Severity::Error, "Halden::Tavro::Utils::PcmItem", testing::_));
    int calls = 0;
    PcmExecutorSequential sut;
    Batch const batch{makeItem([] { throw std::runtime_error("x"); }), makeItem([&calls] { ++calls; })};

    sut.execute(batch);

    EXPECT_EQ(calls, 1);
}

TEST_F(PcmExecutorSequentialTest, ExceptionOutOfAnItemEndsTheProcess)
{
    ChildResult const result = runInChild(
        []
        {
            PcmExecutorSequential().execute({std::make_shared<ThrowingItem>()});
            return 0;
        });

    EXPECT_EQ(result.signal, SIGABRT) << result.output;
}

TEST_F(PcmExecutorThreadPoolTest, EmptyBatchLogsBothLinesWithTheCountZero)
{
    LogCapture const log;
    PcmExecutorThreadPool sut;

    sut.execute({});

    EXPECT_THAT(log.lines(), ElementsAre(isLine(Severity::Trace, poolName, "executing 0 items using thread pool"),
                                         isLine(Severity::Trace, poolName, "executed 0 items using thread pool")));
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
    LogCapture const log(Severity::Debug);
    PcmExecutorThreadPool sut;

    sut.execute({makeItem([] {})});

    EXPECT_THAT(log.lines(), IsEmpty());
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

TEST_F(PcmExecutorThreadPoolTest, ThreadsThatCannotBeMadeThrowASystemErrorOfBoost)
{
    pthreadCreate.failCall(1, EAGAIN, 0);

    try
    {
        PcmExecutorThreadPool const sut;
        FAIL() << "nothing thrown";
    }
    catch (boost::system::system_error const& error)
    {
        EXPECT_EQ(error.code(), boost::system::error_code(EAGAIN, boost::system::system_category()));
    }
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
    EXPECT_TRUE(isReadyWithin(execution, limit));
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
    EXPECT_FALSE(isReadyWithin(execution, watchTime));
    release.set_value();

    EXPECT_TRUE(isReadyWithin(execution, limit));
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

TEST_F(PcmExecutorThreadPoolTest, QueuedTaskKeepsItsItemUntilItHasRun)
{
    Batch batch{makeItem([] {})};
    std::weak_ptr<PcmItemIfc> const item = batch.front();
    HeldThreads poolThreads;
    PcmExecutorThreadPool sut;

    sut.execute(batch);
    batch.clear();

    EXPECT_FALSE(item.expired());
    poolThreads.release();
    EXPECT_TRUE(waitFor([&item] { return item.expired(); }));
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
    EXPECT_THAT(log.lines(), ElementsAre(isLine(Severity::Trace, poolName, "executing 3 items using thread pool"),
                                         isLine(Severity::Trace, poolName, "executed 3 items using thread pool")));
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

TEST_F(MakeExecutorTest, ZeroMakesAThreadPool)
{
    auto const sut = make_executor(static_cast<Strategy>(0));

    EXPECT_NE(dynamic_cast<PcmExecutorThreadPool*>(sut.get()), nullptr);
    EXPECT_EQ(static_cast<int>(Strategy::ThreadPool), 0);
}

TEST_F(MakeExecutorTest, OneMakesASequentialExecutor)
{
    auto const sut = make_executor(static_cast<Strategy>(1));

    EXPECT_NE(dynamic_cast<PcmExecutorSequential*>(sut.get()), nullptr);
    EXPECT_EQ(static_cast<int>(Strategy::Sequential), 1);
}

TEST_F(MakeExecutorTest, AnyOtherValueThrows)
{
    for (int const value : {2, -1, 1000})
    {
        EXPECT_THAT([value] { make_executor(static_cast<Strategy>(value)); },
                    ThrowsMessage<std::runtime_error>(
                        StrEq("Unknown execution strategy requested for the PeriodicCallerManager")));
    }
}

TEST_F(MakeExecutorTest, PoolThatCannotBeMadeThrowsASystemErrorOfBoost)
{
    pthreadCreate.failCall(1, EAGAIN, 0);

    EXPECT_THROW(make_executor(Strategy::ThreadPool), boost::system::system_error);
}

}

}

// The program's own, which the linker prefers to the standard library's, also in the libraries it uses.
unsigned std::thread::hardware_concurrency() noexcept
{
    return Halden::Tavro::Utils::hardwareThreads;
}
