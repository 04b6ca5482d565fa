// What executors leave behind when one of the calls of their construction fails. In execute() a lack of memory ends the
// process.

#include "scheduling/ExecutorTest.h"
#include "support/FailingCalls.h"

namespace Halden::Tavro::Utils
{

namespace
{

using namespace TestSupport;
using testing::IsEmpty;

using PcmExecutorFailingCallTest = ExecutorTest;

TEST_F(PcmExecutorFailingCallTest, PoolThatGetsOnlySomeOfItsThreadsLeavesNone)
{
    EXPECT_THAT(leftByFailingCalls({callsOf("pthread_create", pthreadCreate, EAGAIN, 0), allocations()},
                                   [] { make_executor(PeriodicCallerManager::ExecutionStrategy::ThreadPool).reset(); }),
                IsEmpty());
}

TEST_F(PcmExecutorFailingCallTest, SequentialExecutorThatFindsNoMemoryLeavesNothing)
{
    EXPECT_THAT(leftByFailingCalls({allocations()},
                                   [] { make_executor(PeriodicCallerManager::ExecutionStrategy::Sequential).reset(); }),
                IsEmpty());
}

}

}
