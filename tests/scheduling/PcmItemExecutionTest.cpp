#include <utils/PcmItem.h>

#include "scheduling/ItemTest.h"
#include "support/LogCapture.h"
#include "support/WaitFor.h"

#include <gmock/gmock.h>

#include <atomic>
#include <functional>
#include <future>
#include <memory>
#include <optional>
#include <thread>

namespace Halden::Tavro::Utils
{

namespace
{

using namespace std::chrono_literals;
using namespace testing;
using namespace TestSupport;

using Log::Severity;

/// A function that tells when it has been entered and stays until it is released.
class HeldFunction
{
public:
    void operator()()
    {
        entries.fetch_add(1);
        entered.set_value();
        released.get_future().wait_for(2 * limit); // so what waits for its end in vain has given up before
    }

    bool waitEntered() { return becomesReady(entered.get_future(), limit); }
    void release() { released.set_value(); }

    std::atomic<int> entries{0};

private:
    std::promise<void> entered;
    std::promise<void> released;
};

TEST(PcmItemExecutionTest, EachExecutionCallsTheFunctionOnceAndLogsNothing)
{
    LogCapture const log;
    int calls = 0;
    PcmItem sut([&calls] { ++calls; }, 1ms);

    sut.execute();
    EXPECT_EQ(calls, 1);
    sut.execute();
    EXPECT_EQ(calls, 2);

    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST(PcmItemExecutionTest, ForbiddenItemDoesNotCallTheFunctionAndWarnsEachTime)
{
    LogCapture log;
    auto const warning = isLine(Severity::Warning, itemLogger, forbiddenText);
    log.expect(warning);
    int calls = 0;
    PcmItem sut([&calls] { ++calls; }, 1ms);
    sut.forbidFurtherExecutions();
    sut.forbidFurtherExecutions();

    sut.execute();
    EXPECT_THAT(log.lines(), ElementsAre(warning));
    sut.execute();

    EXPECT_THAT(log.lines(), ElementsAre(warning, warning));
    EXPECT_EQ(calls, 0);
}

TEST(PcmItemExecutionTest, RefusalIsLoggedUnderTheLock)
{
    LogCapture log;
    log.expect(isLine(Severity::Warning, itemLogger, forbiddenText));
    PcmItem sut(doNothing, 1ms);
    std::unique_ptr<Waiter> waiter;
    std::optional<bool> isFree;
    log.onLine(
        [&](LogLine const&)
        {
            waiter = std::make_unique<Waiter>(sut);
            isFree = waiter->returnsWithin(watchTime);
        });
    sut.forbidFurtherExecutions();

    sut.execute();

    EXPECT_EQ(isFree, false);
    EXPECT_TRUE(waiter->returnsWithin(limit));
}

TEST(PcmItemExecutionTest, WaitReturnsAtOnceWhenNothingRuns)
{
    PcmItem sut(doNothing, 1ms);

    EXPECT_TRUE(Waiter(sut).returnsWithin(limit));
    sut.execute();
    EXPECT_TRUE(Waiter(sut).returnsWithin(limit));
}

TEST(PcmItemExecutionTest, WaitOnAnotherThreadBlocksUntilTheFunctionReturns)
{
    HeldFunction function;
    PcmItem sut(std::ref(function), 1ms);
    auto const execution = std::async(std::launch::async, [&sut] { sut.execute(); });
    ASSERT_TRUE(function.waitEntered());
    Waiter const waiter(sut);

    EXPECT_FALSE(waiter.returnsWithin(watchTime));
    function.release();

    EXPECT_TRUE(waiter.returnsWithin(limit));
}

TEST(PcmItemExecutionTest, WaitInsideTheFunctionReturnsAtOnce)
{
    PcmItem* self = nullptr;
    auto const returned = std::make_shared<std::promise<void>>();
    auto const sut = std::make_shared<PcmItem>(
        [&self, returned]
        {
            self->waitEndOfExecutionIfAny();
            returned->set_value();
        },
        1ms);
    self = sut.get();

    std::thread execution([sut] { sut->execute(); });
    bool const inTime = becomesReady(returned->get_future(), limit);
    inTime ? execution.join() : execution.detach();

    EXPECT_TRUE(inTime);
}

TEST(PcmItemExecutionTest, ForbiddingDuringAnExecutionNeitherBlocksNorDisturbsIt)
{
    LogCapture log;
    log.expect(isLine(Severity::Warning, itemLogger, forbiddenText));
    HeldFunction function;
    PcmItem sut(std::ref(function), 1ms);
    auto const execution = std::async(std::launch::async, [&sut] { sut.execute(); });
    ASSERT_TRUE(function.waitEntered());

    auto const forbidding = std::async(std::launch::async, [&sut] { sut.forbidFurtherExecutions(); });
    EXPECT_TRUE(becomesReady(forbidding, limit));
    EXPECT_THAT(log.lines(), IsEmpty());
    function.release();
    EXPECT_TRUE(becomesReady(execution, limit));

    sut.execute();
    EXPECT_EQ(function.entries, 1);
    EXPECT_THAT(log.lines(), ElementsAre(isLine(Severity::Warning, itemLogger, forbiddenText)));
}

TEST(PcmItemExecutionTest, FunctionMayForbidItsOwnItem)
{
    LogCapture log;
    log.expect(isLine(Severity::Warning, itemLogger, forbiddenText));
    PcmItem* self = nullptr;
    int calls = 0;
    PcmItem sut(
        [&]
        {
            ++calls;
            self->forbidFurtherExecutions();
        },
        1ms);
    self = &sut;

    sut.execute();
    sut.execute();

    EXPECT_EQ(calls, 1);
}

TEST(PcmItemExecutionTest, ExecutionsOfOneItemNeverOverlap)
{
    std::atomic<int> inside{0};
    std::atomic<int> overlaps{0};
    int calls = 0; // by the item's own lock alone
    PcmItem sut(
        [&]
        {
            overlaps += inside.fetch_add(1);
            ++calls;
            std::this_thread::yield();
            inside.fetch_sub(1);
        },
        1ms);
    auto const executeOften = [&sut]
    {
        for (int i = 0; i < 1000; ++i)
        {
            sut.execute();
        }
    };

    std::thread other(executeOften);
    executeOften();
    other.join();

    EXPECT_EQ(overlaps, 0);
    EXPECT_EQ(calls, 2000);
}

TEST(PcmItemExecutionTest, FunctionMayExecuteItsOwnItem)
{
    int calls = 0;
    std::unique_ptr<PcmItem> sut;
    sut = std::make_unique<PcmItem>(
        [&]
        {
            if (++calls < 3)
            {
                sut->execute();
            }
        },
        1ms);

    sut->execute();

    EXPECT_EQ(calls, 3);
}

}

}
