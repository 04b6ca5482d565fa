#include "scheduling/ExecutorTest.h"
#include "support/LogCapture.h"
#include "support/VirtualSlot.h"

#include <utils/PcmExecutor.h>

#include <boost/system/system_error.hpp>

#include <gmock/gmock.h>

#include <cerrno>
#include <stdexcept>
#include <tuple>
#include <type_traits>
#include <utility>

namespace Halden::Tavro::Utils
{

namespace
{

using namespace std::chrono_literals;
using namespace testing;
using namespace TestSupport;

using Log::Severity;

using PcmExecutorInterfaceTest = ExecutorTest;

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

using MakeExecutorTest = ExecutorTest;

TEST_F(MakeExecutorTest, ZeroMakesAThreadPool)
{
    auto const sut = make_executor(static_cast<PeriodicCallerManager::ExecutionStrategy>(0));

    EXPECT_NE(dynamic_cast<PcmExecutorThreadPool*>(sut.get()), nullptr);
    EXPECT_EQ(static_cast<int>(PeriodicCallerManager::ExecutionStrategy::ThreadPool), 0);
}

TEST_F(MakeExecutorTest, OneMakesASequentialExecutor)
{
    auto const sut = make_executor(static_cast<PeriodicCallerManager::ExecutionStrategy>(1));

    EXPECT_NE(dynamic_cast<PcmExecutorSequential*>(sut.get()), nullptr);
    EXPECT_EQ(static_cast<int>(PeriodicCallerManager::ExecutionStrategy::Sequential), 1);
}

TEST_F(MakeExecutorTest, AnyOtherValueThrows)
{
    for (int const value : {2, -1, 1000})
    {
        EXPECT_THAT([value]
                    { std::ignore = make_executor(static_cast<PeriodicCallerManager::ExecutionStrategy>(value)); },
                    ThrowsMessage<std::runtime_error>(
                        StrEq("Unknown execution strategy requested for the PeriodicCallerManager")));
    }
}

TEST_F(MakeExecutorTest, PoolThatCannotBeMadeThrowsASystemErrorOfBoost)
{
    pthreadCreate.failCall(1, EAGAIN, 0);

    EXPECT_THROW(std::ignore = make_executor(PeriodicCallerManager::ExecutionStrategy::ThreadPool),
                 boost::system::system_error);
}

}

}
