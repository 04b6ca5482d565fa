#include "scheduling/ExecutorTest.h"
#include "support/ChildProcess.h"
#include "support/LogCapture.h"

#include <utils/PcmExecutor.h>

#include <gmock/gmock.h>

#include <csignal>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace Halden::Tavro::Utils
{

namespace
{

using namespace std::chrono_literals;
using namespace testing;
using namespace TestSupport;

using Log::Severity;

using PcmExecutorSequentialTest = ExecutorTest;

constexpr auto loggerName = "Halden::Tavro::Utils::PcmExecutorSequential";

// kept: "sequentialy"; what reads the log looks for it
TEST_F(PcmExecutorSequentialTest, EmptyBatchLogsBothLinesWithTheCountZero)
{
    PcmExecutorSequential sut;

    EXPECT_THAT(linesAbout({}, sut), ElementsAre(isLine(Severity::Trace, loggerName, "executing 0 items sequentialy"),
                                                 isLine(Severity::Trace, loggerName, "executed 0 items sequentialy")));
}

// kept: as above
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
    PcmExecutorSequential sut;

    EXPECT_THAT(linesAbout({makeItem([] {})}, sut, Severity::Debug), IsEmpty());
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
    log.expect(isLine(Severity::Error, "Halden::Tavro::Utils::PcmItem", _));
    int calls = 0;
    PcmExecutorSequential sut;
    Batch const batch{makeItem([] { throw std::runtime_error("x"); }), makeItem([&calls] { ++calls; })};

    sut.execute(batch);

    EXPECT_EQ(calls, 1);
}

// kept: items let nothing out; where one does, it is the scheduler that has failed
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

}

}
