#include <utils/PcmExecutor.h>

#include "scheduling/ExecutorTest.h"
#include "support/LogCapture.h"
#include "support/Resources.h"

#include <gmock/gmock.h>

#include <memory>
#include <stdexcept>
#include <vector>

namespace Halden::Tavro::Utils
{

namespace
{

using namespace std::chrono_literals;
using namespace TestSupport;

using PcmExecutorAllocationTest = ExecutorTest;

std::size_t allocationsOf(PeriodicCallerManagerExecutorIfc& executor,
                          std::vector<std::shared_ptr<PcmItemIfc>> const& batch)
{
    std::size_t const before = heapAllocations();
    executor.execute(batch);
    return heapAllocations() - before;
}

TEST_F(PcmExecutorAllocationTest, SequentialBatchAllocatesNothing)
{
    LogCapture const log(Log::Severity::Info);
    int calls = 0;
    std::vector<std::shared_ptr<PcmItemIfc>> const batch(10, std::make_shared<PcmItem>([&calls] { ++calls; }, 1ms));
    PcmExecutorSequential sut;

    EXPECT_EQ(allocationsOf(sut, batch), 0U);
    EXPECT_EQ(calls, 10);
}

TEST_F(PcmExecutorAllocationTest, ThreadPoolBatchAllocatesAtLeastOneTaskPerItem)
{
    LogCapture const log(Log::Severity::Info);
    std::vector<std::shared_ptr<PcmItemIfc>> const batch(10, std::make_shared<PcmItem>([] {}, 1ms));
    PcmExecutorThreadPool sut;

    EXPECT_GE(allocationsOf(sut, batch), 10U);
}

TEST_F(PcmExecutorAllocationTest, EveryFurtherItemCostsAThreadPoolTheSame)
{
    LogCapture const log(Log::Severity::Info);
    hardwareThreads = 0; // no thread allocates but the calling one
    PcmExecutorThreadPool sut;
    auto const allocationsFor = [&sut](std::size_t items) { return allocationsOf(sut, Batch(items, makeItem([] {}))); };

    std::size_t const fifteen = allocationsFor(15);
    std::size_t const sixteen = allocationsFor(16);
    std::size_t const seventeen = allocationsFor(17); // the first that a list would have to grow for

    EXPECT_EQ(sixteen - fifteen, seventeen - sixteen);
}

}

}
