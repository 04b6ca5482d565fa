#include <utils/PcmItem.h>

#include "scheduling/ItemTest.h"
#include "support/CallDouble.h"
#include "support/LogCapture.h"

#include <gmock/gmock.h>

#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <string>
#include <system_error>
#include <utility>

namespace Halden::Tavro::TestSupport
{

/// What the next lock of this thread answers, where it is not 0. No CallDouble, as that takes locks itself.
thread_local int lockError = 0;

}

extern "C" int pthread_mutex_lock(pthread_mutex_t* mutex) noexcept
{
    using namespace Halden::Tavro::TestSupport;
    using Lock = int (*)(pthread_mutex_t*);
    static std::atomic<Lock> systemsOwn{nullptr}; // a call of its initialisation would take a lock
    if (int const error = std::exchange(lockError, 0))
    {
        return error;
    }
    if (systemsOwn == nullptr)
    {
        systemsOwn = systemFunction<Lock>("pthread_mutex_lock");
    }
    return systemsOwn.load()(mutex);
}

namespace Halden::Tavro::Utils
{

namespace
{

using namespace std::chrono_literals;
using namespace testing;
using namespace TestSupport;

using Log::Severity;

std::string const exceptionText =
    "PcmItem execution threw exception. Exception: " + std::generic_category().message(EAGAIN) + ".\n";

TEST(PcmItemLockTest, LockThatFailsIsLoggedAsAnExceptionOfTheFunctionAndThrowsNothing)
{
    LogCapture log;
    auto const error =
        isLine(Severity::Error, itemLogger, exceptionText + "Further exceptions will be logged with trace level");
    log.expect(error);
    int calls = 0;
    PcmItem sut([&calls] { ++calls; }, 1ms);

    lockError = EAGAIN;
    EXPECT_NO_THROW(sut.execute());
    lockError = EAGAIN;
    EXPECT_NO_THROW(sut.execute());

    EXPECT_EQ(calls, 0);
    EXPECT_THAT(log.lines(), ElementsAre(error, isLine(Severity::Trace, itemLogger, exceptionText)));
}

TEST(PcmItemLockTest, LockThatFailsIsNoStart)
{
    LogCapture log;
    log.expect(_);
    int calls = 0;
    PcmItem sut([&calls] { ++calls; }, 1ms);

    lockError = EAGAIN;
    sut.execute();
    EXPECT_EQ(sut.nextDueTime(), at(1ms));
    sut.execute();

    EXPECT_EQ(calls, 1);
    EXPECT_GT(sut.nextDueTime(), at(1ms));
}

TEST(PcmItemLockTest, WaitThrowsWhenItCannotLock)
{
    PcmItem sut(doNothing, 1ms);

    lockError = EAGAIN;

    EXPECT_THROW(sut.waitEndOfExecutionIfAny(), std::system_error);
}

}

}
