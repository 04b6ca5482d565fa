#include "scheduling/ExecutorTest.h"

#include <utils/PcmExecutor.h>

#include <gmock/gmock.h>

#include <memory>

namespace Halden::Tavro::Utils
{

namespace
{

using namespace std::chrono_literals;
using namespace testing;
using namespace TestSupport;

using PcmExecutorThreadPoolHardenedTest = ExecutorTest;

TEST_F(PcmExecutorThreadPoolHardenedTest, QueuedTaskKeepsNoItem)
{
    Batch batch{makeItem([] {})};
    std::weak_ptr<PcmItemIfc> const item = batch.front();
    HeldThreads poolThreads;
    PcmExecutorThreadPool sut;

    sut.execute(batch);
    batch.clear();

    EXPECT_TRUE(item.expired());
    poolThreads.release(); // the pool waits for them
}

}

}
