#include <utils/PcmExecutor.h>

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

std::size_t allocationsOf(PeriodicCallerManagerExecutorIfc& executor,
                          std::vector<std::shared_ptr<PcmItemIfc>> const& batch)
{
    std::size_t const before = heapAllocations();
    executor.execute(batch);
    return heapAllocations() - before;
}

TEST(PcmExecutorAllocationTest, SequentialBatchAllocatesNothing)
{
    LogCapture const log(Log::Severity::Info);
    int calls = 0;
    std::vector<std::shared_ptr<PcmItemIfc>> const batch(10, std::make_shared<PcmItem>([&calls] { ++calls; }, 1ms));
    PcmExecutorSequential sut;

    EXPECT_EQ(allocationsOf(sut, batch), 0U);
    EXPECT_EQ(calls, 10);
}

TEST(PcmExecutorAllocationTest, ThreadPoolBatchAllocatesAtLeastOneTaskPerItem)
{
    LogCapture const log(Log::Severity::Info);
    std::vector<std::shared_ptr<PcmItemIfc>> const batch(10, std::make_shared<PcmItem>([] {}, 1ms));
    PcmExecutorThreadPool sut;

    EXPECT_GE(allocationsOf(sut, batch), 10U);
}

}

}
