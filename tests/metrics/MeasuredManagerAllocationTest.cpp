#include "metrics/CapturingManager.h"
#include "support/Resources.h"

#include <utils/metrics/MeasuredManager.h>

#include <gmock/gmock.h>

#include <prometheus/registry.h>

#include <chrono>
#include <cstddef>
#include <memory>

namespace Halden::Tavro::Utils::Metrics
{

namespace
{

using namespace TestSupport;
using namespace std::chrono_literals;

TEST(MeasuredManagerAllocationTest, RunAllocatesNothing)
{
    auto const capturing = std::make_shared<CapturingManager>();
    int calls = 0;
    MeasuredManager sut(capturing, std::make_shared<prometheus::Registry>());
    auto const token = sut.add(
        "function", [&calls] { ++calls; }, 1ms);
    std::size_t const before = heapAllocations();

    for (int i = 0; i < 1000; ++i)
    {
        capturing->function();
    }

    EXPECT_EQ(heapAllocations(), before);
    EXPECT_GT(before, 0); // they are counted
    EXPECT_EQ(calls, 1000);
}

}

}
