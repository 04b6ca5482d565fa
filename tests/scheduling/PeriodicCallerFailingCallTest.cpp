// What a periodic caller leaves behind when one of its calls fails.

#include <utils/PeriodicCaller.h>

#include "scheduling/ThreadDoubles.h"
#include "support/FailingCalls.h"

#include <gmock/gmock.h>

#include <cerrno>
#include <chrono>

namespace Halden::Tavro::Utils
{

namespace
{

using namespace std::chrono_literals;
using namespace TestSupport;
using testing::IsEmpty;

TEST(PeriodicCallerFailingCallTest, LifeThatEndsWithAFailedCallLeavesNothing)
{
    pthreadCreate.reset();
    auto const live = []
    {
        PeriodicCaller sut(1h, "a name longer than any short string", [](auto const&) {});
        sut.start();
        sut.stop();
    };

    EXPECT_THAT(leftByFailingCalls({callsOf("pthread_create", pthreadCreate, EAGAIN, 0), allocations()}, live),
                IsEmpty());
}

TEST(PeriodicCallerFailingCallTest, CallerThatCouldNotBeStartedIsStartedLater)
{
    pthreadCreate.reset();
    PeriodicCaller sut(1h, "led", [](auto const&) {});
    auto const startAndStop = [&sut]
    {
        sut.start();
        sut.stop();
    };

    EXPECT_THAT(leftByFailingCalls({callsOf("pthread_create", pthreadCreate, EAGAIN, 0), allocations()}, startAndStop),
                IsEmpty());
}

}

}
