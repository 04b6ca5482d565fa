// The look-up on a thread of its own.

#include <utils/Route.h>

#include "net/RouteFixture.h"
#include "support/SteadyClockDouble.h"

#include <gmock/gmock.h>

#include <linux/futex.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <functional>
#include <future>
#include <limits>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace Halden::Tavro::Utils
{

namespace
{

using testing::IsEmpty;
using testing::SizeIs;
using testing::StrEq;
using testing::ThrowsMessage;
using namespace std::chrono_literals;
using namespace TestSupport;

using ThreadFunction = void* (*)(void*);

CallDouble<int(pthread_t*, pthread_attr_t const*, ThreadFunction, void*)> pthreadCreate{"pthread_create"};
CallDouble<long(long, long, long, long, long, long, long)> syscallDouble{"syscall"};

/// A point in time as the C++ library hands it to the kernel, whatever time_t this program has.
struct KernelTime
{
    long seconds;
    long nanoseconds;
};

}

extern "C"
{

    int pthread_create(pthread_t* thread, pthread_attr_t const* attributes, ThreadFunction function,
                       void* argument) noexcept
    {
        return pthreadCreate(thread, attributes, function, argument);
    }

    long syscallOfTest(long number, long first, long second, long third, long fourth, long fifth, long sixth) noexcept
    {
        return syscallDouble(number, first, second, third, fourth, fifth, sixth);
    }
}
HALDEN_DOUBLE(syscall, syscallOfTest)

namespace
{

class RouteThreadTest : public RouteFixture
{
protected:
    RouteThreadTest() { resetOwnDoubles(); }
    ~RouteThreadTest() override { resetOwnDoubles(); }

    static void resetOwnDoubles()
    {
        pthreadCreate.reset();
        syscallDouble.reset();
    }

    /// A thread that waits for a future sleeps in a futex call, until the time that is the fourth argument if there is
    /// one.
    static void onTimedSleep(std::function<void(KernelTime const&)> const& function)
    {
        syscallDouble.replace(
            [function](long number, long word, long operation, long value, long until, long second, long bits)
            {
                if (number == SYS_futex && (operation & ~FUTEX_PRIVATE_FLAG) == FUTEX_WAIT_BITSET && until != 0)
                {
                    function(*reinterpret_cast<KernelTime const*>(until));
                }
                return syscallDouble.passOn(number, word, operation, value, until, second, bits);
            });
    }

    /// Until when a look-up slept that went on after its time-out, which began when the steady clock was at 1 s.
    std::vector<KernelTime> deadlinesOfSlowLookUp(std::uint32_t timeout)
    {
        SteadyClockDouble const clock(1s); // long ago: the time-out is over at once
        std::promise<void> waited;
        std::vector<KernelTime> deadlines;
        onTimedSleep(
            [&](KernelTime const& deadline)
            {
                deadlines.push_back(deadline);
                waited.set_value();
            });
        getaddrinfoDouble.replace(
            [&, over = waited.get_future().share()](char const*, char const*, addrinfo const*, addrinfo** list)
            {
                EXPECT_EQ(over.wait_until(std::chrono::system_clock::now() + 10s), std::future_status::ready);
                *list = entries.data();
                return 0;
            });
        EXPECT_EQ(Ip::getLocalIpForRemote("host", timeout), "192.0.2.1");
        resetOwnDoubles();
        return deadlines;
    }
};

TEST_F(RouteThreadTest, RemoteIsLookedUpOnAThreadOfItsOwn)
{
    std::string asked;
    std::thread::id worker;
    getaddrinfoDouble.replace(
        [&](char const* node, char const*, addrinfo const*, addrinfo** list)
        {
            asked = node;
            worker = std::this_thread::get_id();
            *list = entries.data();
            return 0;
        });

    EXPECT_EQ(Ip::getLocalIpForRemote("time.example.com", 5), "192.0.2.1");

    EXPECT_EQ(asked, "time.example.com");
    EXPECT_NE(worker, std::this_thread::get_id());
    EXPECT_EQ(pthreadCreate.count(), 1U);
}

TEST_F(RouteThreadTest, FailureOfTheWorkerComesOutUnchanged)
{
    for (std::uint32_t const timeout : {0U, 5U})
    {
        connectDouble.reset();
        connectDouble.failCall(1, -1, ENETUNREACH);

        EXPECT_THAT([&] { Ip::getLocalIpForRemote("host", timeout); },
                    ThrowsMessage<std::runtime_error>(StrEq("could not resolve IP or hostname")));
    }
    EXPECT_THAT(log.lines(), IsEmpty());
}

// kept: services have no answer to a call that gives up
TEST_F(RouteThreadTest, TimeOutEndsOneWaitButNotTheCall)
{
    for (std::uint32_t const timeout : {1U, 7U})
    {
        auto const deadlines = deadlinesOfSlowLookUp(timeout);

        ASSERT_THAT(deadlines, SizeIs(1));
        EXPECT_EQ(deadlines[0].seconds, static_cast<long>(1 + timeout));
        EXPECT_EQ(deadlines[0].nanoseconds, 0);
    }
}

TEST_F(RouteThreadTest, GreatestTimeOutIsAWaitLikeAnyOther)
{
    EXPECT_THAT(deadlinesOfSlowLookUp(std::numeric_limits<std::uint32_t>::max()), SizeIs(1));
}

TEST_F(RouteThreadTest, ZeroMeansNoTimedWait)
{
    SteadyClockDouble const clock(1s);

    EXPECT_EQ(Ip::getLocalIpForRemote("host", 0), "192.0.2.1");

    EXPECT_EQ(clock.readings(), 0U);
    EXPECT_EQ(pthreadCreate.count(), 1U);
}

TEST_F(RouteThreadTest, WithoutAThreadTheCallerLooksItUpAndDoesNotWait)
{
    SteadyClockDouble const clock(1s);
    pthreadCreate.failCall(1, EAGAIN, 0);
    std::thread::id worker;
    getaddrinfoDouble.replace(
        [&](char const*, char const*, addrinfo const*, addrinfo** list)
        {
            worker = std::this_thread::get_id();
            *list = entries.data();
            return 0;
        });

    EXPECT_EQ(Ip::getLocalIpForRemote("host", 5), "192.0.2.1");

    EXPECT_EQ(worker, std::this_thread::get_id());
    EXPECT_EQ(clock.readings(), 0U);
    EXPECT_EQ(pthreadCreate.count(), 1U);
}

}

}
