#include "scheduling/ExecutorTest.h"
#include "support/WaitFor.h"

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

using PcmExecutorThreadPoolExactTest = ExecutorTest;

// kept: what has been posted stays with the pool until one of its threads gets to it
TEST_F(PcmExecutorThreadPoolExactTest, QueuedTaskKeepsItsItemUntilItHasRun)
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

}

}
