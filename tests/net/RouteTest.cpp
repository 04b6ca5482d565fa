#include <utils/Route.h>

#include "support/CallDouble.h"
#include "support/LogCapture.h"
#include "support/SteadyClockDouble.h"

#include <gmock/gmock.h>

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <linux/futex.h>
#include <netdb.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstdint>
#include <cstring>
#include <deque>
#include <functional>
#include <future>
#include <mutex>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

namespace Halden::Tavro::Utils
{

namespace
{

using Log::Severity;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using testing::StrEq;
using testing::ThrowsMessage;
using TestSupport::CallDouble;
using TestSupport::isLine;
using TestSupport::LogCapture;
using TestSupport::LogLine;
using TestSupport::SteadyClockDouble;
using TestSupport::systemFunction;
using namespace std::chrono_literals;

constexpr int firstSocket = 4711; // neither this nor what follows is a descriptor of the process

using ThreadFunction = void* (*)(void*);

CallDouble<int(char const*, char const*, addrinfo const*, addrinfo**)> getaddrinfoDouble{"getaddrinfo"};
CallDouble<int(int, int, int)> socketDouble{"socket"};
CallDouble<int(int, sockaddr const*, socklen_t)> connectDouble{"connect"};
CallDouble<int(int, sockaddr*, socklen_t*)> getsocknameDouble{"getsockname"};
CallDouble<int(int)> closeDouble{"close"};
CallDouble<int(ifaddrs**)> getifaddrsDouble{"getifaddrs"};
CallDouble<int(pthread_t*, pthread_attr_t const*, ThreadFunction, void*)> pthreadCreate{"pthread_create"};

/// What is called in the order of the calls, arguments with it.
class Events
{
public:
    void add(std::string const& event)
    {
        std::lock_guard const lock(mutex);
        events.push_back(event);
    }

    std::vector<std::string> take()
    {
        std::lock_guard const lock(mutex);
        return std::exchange(events, {});
    }

private:
    std::mutex mutex;
    std::vector<std::string> events; // guarded by mutex
};

Events events;
std::atomic<bool> listsUnderTest{false}; // else lists are the system's

/// A point in time as the C++ library hands it to the kernel, whatever time_t this program has.
struct KernelTime
{
    long seconds;
    long nanoseconds;
};

std::function<void(KernelTime const&)> onTimedSleep; // set while no other thread runs

}

extern "C"
{

    int getaddrinfo(char const* node, char const* service, addrinfo const* hints, addrinfo** list)
    {
        return getaddrinfoDouble(node, service, hints, list);
    }

    void freeaddrinfo(addrinfo* list) noexcept
    {
        if (!listsUnderTest)
        {
            systemFunction<decltype(&freeaddrinfo)>("freeaddrinfo")(list);
            return;
        }
        events.add("freeaddrinfo " + std::to_string(list->ai_protocol));
    }

    int socket(int family, int type, int protocol) noexcept
    {
        return socketDouble(family, type, protocol);
    }

    int connect(int descriptor, sockaddr const* address, socklen_t length)
    {
        return connectDouble(descriptor, address, length);
    }

    int getsockname(int descriptor, sockaddr* address, socklen_t* length) noexcept
    {
        return getsocknameDouble(descriptor, address, length);
    }

    int close(int descriptor)
    {
        return descriptor >= firstSocket ? closeDouble(descriptor) : systemFunction<int (*)(int)>("close")(descriptor);
    }

    int getifaddrs(ifaddrs** list) noexcept
    {
        return getifaddrsDouble(list);
    }

    void freeifaddrs(ifaddrs* list) noexcept
    {
        if (!listsUnderTest)
        {
            systemFunction<decltype(&freeifaddrs)>("freeifaddrs")(list);
            return;
        }
        events.add(std::string("freeifaddrs ") + list->ifa_name);
    }

    int pthread_create(pthread_t* thread, pthread_attr_t const* attributes, ThreadFunction function,
                       void* argument) noexcept
    {
        return pthreadCreate(thread, attributes, function, argument);
    }

    /// A thread that waits for a future sleeps here, until the time that is the fourth argument if there is one.
    long syscall(long number, ...) noexcept
    {
        va_list arguments;
        va_start(arguments, number);
        std::array<long, 6> values{};
        for (auto& value : values)
        {
            value = va_arg(arguments, long);
        }
        va_end(arguments);
        bool const onSteadyClock = (values[1] & ~FUTEX_PRIVATE_FLAG) == FUTEX_WAIT_BITSET;
        if (number == SYS_futex && onSteadyClock && values[3] != 0 && onTimedSleep)
        {
            onTimedSleep(*reinterpret_cast<KernelTime const*>(values[3]));
        }
        return systemFunction<long (*)(long, ...)>("syscall")(number, values[0], values[1], values[2], values[3],
                                                              values[4], values[5]);
    }
}

namespace
{

sockaddr_storage v4(std::string const& text)
{
    sockaddr_storage storage{};
    auto* const address = reinterpret_cast<sockaddr_in*>(&storage);
    address->sin_family = AF_INET;
    inet_pton(AF_INET, text.c_str(), &address->sin_addr);
    return storage;
}

sockaddr_storage v6(std::string const& text, std::uint32_t scope = 0)
{
    sockaddr_storage storage{};
    auto* const address = reinterpret_cast<sockaddr_in6*>(&storage);
    address->sin6_family = AF_INET6;
    address->sin6_scope_id = scope;
    inet_pton(AF_INET6, text.c_str(), &address->sin6_addr);
    return storage;
}

std::string text(sockaddr const* address)
{
    std::array<char, INET_ADDRSTRLEN> buffer{};
    return inet_ntop(AF_INET, &reinterpret_cast<sockaddr_in const*>(address)->sin_addr, buffer.data(), buffer.size());
}

IpAddress ip(sockaddr_storage const& storage)
{
    return IpAddress(reinterpret_cast<sockaddr const*>(&storage));
}

/// A resolver that finds one address, and sockets that can be connected and then have the address 192.0.2.1.
class RouteTest : public testing::Test
{
protected:
    RouteTest()
    {
        resetDoubles();
        getaddrinfoDouble.replace(
            [this](char const*, char const*, addrinfo const*, addrinfo** list)
            {
                *list = entries.empty() ? nullptr : entries.data();
                return 0;
            });
        socketDouble.replace(
            [this](int family, int type, int protocol)
            {
                events.add("socket " + std::to_string(family) + " " + std::to_string(type) + " " +
                           std::to_string(protocol));
                return nextSocket++;
            });
        connectDouble.replace(
            [](int descriptor, sockaddr const* address, socklen_t length)
            {
                events.add("connect " + std::to_string(descriptor) + " " + text(address) + " " +
                           std::to_string(length));
                return 0;
            });
        getsocknameDouble.replace(
            [](int descriptor, sockaddr* address, socklen_t* length)
            {
                events.add("getsockname " + std::to_string(descriptor) + " " + std::to_string(*length));
                auto const local = v4("192.0.2.1");
                std::memcpy(address, &local, *length);
                return 0;
            });
        closeDouble.replace(
            [](int descriptor)
            {
                events.add("close " + std::to_string(descriptor));
                errno = EIO;
                return -1;
            });
        letResolverFind({"198.51.100.1"});
        listsUnderTest = true;
    }

    ~RouteTest() override
    {
        listsUnderTest = false;
        resetDoubles();
    }

    static void resetDoubles()
    {
        onTimedSleep = nullptr;
        getaddrinfoDouble.reset();
        socketDouble.reset();
        connectDouble.reset();
        getsocknameDouble.reset();
        closeDouble.reset();
        getifaddrsDouble.reset();
        pthreadCreate.reset();
        events.take();
    }

    /// Entries of the protocols 1, 2, 3 and so on, of which each has another type as well.
    void letResolverFind(std::vector<std::string> const& found)
    {
        addresses.clear();
        entries.assign(found.size(), {});
        for (std::size_t i = 0; i < found.size(); ++i)
        {
            addresses.push_back(v4(found[i]));
            entries[i].ai_family = AF_INET;
            entries[i].ai_socktype = static_cast<int>(i) + 11;
            entries[i].ai_protocol = static_cast<int>(i) + 1;
            entries[i].ai_addr = reinterpret_cast<sockaddr*>(&addresses.back());
            entries[i].ai_addrlen = static_cast<socklen_t>(16 + i);
            entries[i].ai_next = i + 1 < found.size() ? &entries[i + 1] : nullptr;
        }
    }

    /// Interfaces with their addresses, in this order; a family of AF_UNSPEC stands for none.
    void letSystemHave(std::vector<std::pair<std::string, sockaddr_storage>> const& found)
    {
        interfaces = found;
        interfaceList.assign(found.size(), {});
        for (std::size_t i = 0; i < found.size(); ++i)
        {
            auto& [name, address] = interfaces[i];
            interfaceList[i].ifa_name = name.data();
            interfaceList[i].ifa_addr =
                address.ss_family == AF_UNSPEC ? nullptr : reinterpret_cast<sockaddr*>(&address);
            interfaceList[i].ifa_next = i + 1 < found.size() ? &interfaceList[i + 1] : nullptr;
        }
        getifaddrsDouble.replace(
            [this](ifaddrs** list)
            {
                *list = interfaceList.empty() ? nullptr : interfaceList.data();
                return 0;
            });
    }

    void expectError(std::string const& expected) { log.expect(isLine(Severity::Error, "", expected)); }

    /// Writes down what is logged among the other events.
    void letLoggingBeAnEvent()
    {
        log.onLine([](LogLine const& line) { events.add("log " + line.text); });
    }

    LogCapture log;
    std::deque<sockaddr_storage> addresses; // which stay where they are
    std::vector<addrinfo> entries;
    std::vector<std::pair<std::string, sockaddr_storage>> interfaces;
    std::vector<ifaddrs> interfaceList;
    std::atomic<int> nextSocket{firstSocket};
};

using LocalIpTest = RouteTest;
using LocalIpOnAThreadTest = RouteTest;
using InterfaceNameTest = RouteTest;

TEST_F(LocalIpTest, ResolverIsAskedForDatagramsOverIpv4)
{
    getaddrinfoDouble.replace(
        [this](char const* node, char const* service, addrinfo const* hints, addrinfo** list)
        {
            EXPECT_STREQ(node, "time.example.com");
            EXPECT_EQ(service, nullptr);
            addrinfo expected{};
            expected.ai_family = AF_INET;
            expected.ai_socktype = SOCK_DGRAM;
            EXPECT_EQ(std::memcmp(hints, &expected, sizeof(expected)), 0);
            *list = entries.data();
            return 0;
        });

    EXPECT_EQ(Ip::internalLocalIpForRemote("time.example.com"), "192.0.2.1");

    EXPECT_EQ(getaddrinfoDouble.count(), 1U);
}

TEST_F(LocalIpTest, ConnectedSocketIsAskedAndLeftOpen)
{
    EXPECT_EQ(Ip::internalLocalIpForRemote("host"), "192.0.2.1");

    EXPECT_THAT(events.take(),
                ElementsAre("socket 2 11 1", "connect 4711 198.51.100.1 16", "getsockname 4711 16", "freeaddrinfo 1"));
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(LocalIpTest, EntriesAreTriedInOrderUntilOneIsConnected)
{
    letResolverFind({"198.51.100.1", "198.51.100.2", "198.51.100.3", "198.51.100.4"});
    socketDouble.failCall(1, -1, EMFILE);
    connectDouble.failCall(1, -1, ENETUNREACH);

    EXPECT_EQ(Ip::internalLocalIpForRemote("host"), "192.0.2.1");

    EXPECT_THAT(events.take(), ElementsAre("socket 2 12 2", "close 4711", "socket 2 13 3",
                                           "connect 4712 198.51.100.3 18", "getsockname 4712 16", "freeaddrinfo 1"));
    ASSERT_THAT(connectDouble.calls(), SizeIs(2));
    EXPECT_EQ(std::get<1>(connectDouble.calls()[0]), entries[1].ai_addr);
    EXPECT_EQ(std::get<2>(connectDouble.calls()[0]), 17U);
}

TEST_F(LocalIpTest, FailureOfTheResolverThrowsItsText)
{
    getaddrinfoDouble.failCall(1, EAI_AGAIN, 0);

    EXPECT_THAT(
        [] { Ip::internalLocalIpForRemote("host"); },
        ThrowsMessage<std::runtime_error>(StrEq("getaddrinfo failed with Temporary failure in name resolution")));

    EXPECT_THAT(events.take(), IsEmpty());
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(LocalIpTest, Ipv6AddressIsRefusedByTheResolver)
{
    listsUnderTest = false;
    getaddrinfoDouble.reset();
    for (char const* const remote : {"::1", "2001:db8::1", "fe80::1%lo"})
    {
        EXPECT_THAT([&] { Ip::internalLocalIpForRemote(remote); },
                    ThrowsMessage<std::runtime_error>(
                        StrEq("getaddrinfo failed with Address family for hostname not supported")));
    }
    EXPECT_EQ(socketDouble.count(), 0U);
}

TEST_F(LocalIpTest, FailureToGetTheNameClosesTheSocketAndThrowsTheFirstErrno)
{
    letResolverFind({"198.51.100.1", "198.51.100.2"});
    getsocknameDouble.failCall(1, -1, ENOBUFS);

    EXPECT_THAT([] { Ip::internalLocalIpForRemote("host"); },
                ThrowsMessage<std::runtime_error>(StrEq("failed to get local socket name, errno=105")));

    EXPECT_THAT(events.take(),
                ElementsAre("socket 2 11 1", "connect 4711 198.51.100.1 16", "close 4711", "freeaddrinfo 1"));
    ASSERT_EQ(getsocknameDouble.count(), 1U);
    EXPECT_EQ(std::get<0>(getsocknameDouble.calls()[0]), 4711);
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(LocalIpTest, NegativeErrnoKeepsItsSign)
{
    getsocknameDouble.failCall(1, -1, -5);

    EXPECT_THAT([] { Ip::internalLocalIpForRemote("host"); },
                ThrowsMessage<std::runtime_error>(StrEq("failed to get local socket name, errno=-5")));
}

TEST_F(LocalIpTest, NoConnectedSocketIsAFailure)
{
    letResolverFind({"198.51.100.1", "198.51.100.2"});
    socketDouble.failCall(1, -1, EMFILE);
    connectDouble.failCall(1, -1, ENETUNREACH);

    EXPECT_THAT([] { Ip::internalLocalIpForRemote("host"); },
                ThrowsMessage<std::runtime_error>(StrEq("could not resolve IP or hostname")));

    EXPECT_THAT(events.take(), ElementsAre("socket 2 12 2", "close 4711", "freeaddrinfo 1"));
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(LocalIpTest, EmptyListIsAFailure)
{
    letResolverFind({});

    EXPECT_THAT([] { Ip::internalLocalIpForRemote("host"); },
                ThrowsMessage<std::runtime_error>(StrEq("could not resolve IP or hostname")));

    EXPECT_EQ(socketDouble.count(), 0U);
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(LocalIpTest, SeveralThreadsGetTheirOwnAnswers)
{
    getsocknameDouble.replace(
        [](int, sockaddr* address, socklen_t* length)
        {
            thread_local auto const mine = v4("10.0.0." + std::to_string(gettid() % 256));
            std::memcpy(address, &mine, *length);
            return 0;
        });
    auto const askAgainAndAgain = []
    {
        std::string const mine = "10.0.0." + std::to_string(gettid() % 256);
        for (int i = 0; i < 200; ++i)
        {
            EXPECT_EQ(Ip::internalLocalIpForRemote("host"), mine);
        }
    };

    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i)
    {
        threads.emplace_back(askAgainAndAgain);
    }
    for (auto& thread : threads)
    {
        thread.join();
    }
}

TEST_F(LocalIpOnAThreadTest, RemoteIsLookedUpOnAThreadOfItsOwn)
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

TEST_F(LocalIpOnAThreadTest, FailureOfTheWorkerComesOutUnchanged)
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

TEST_F(LocalIpOnAThreadTest, TimeOutEndsOneWaitButNotTheCall)
{
    SteadyClockDouble const clock(1s); // long ago: the time-out is over at once
    std::promise<void> waited;
    std::vector<KernelTime> deadlines;
    onTimedSleep = [&](KernelTime const& deadline)
    {
        deadlines.push_back(deadline);
        waited.set_value();
    };
    getaddrinfoDouble.replace(
        [&, over = waited.get_future().share()](char const*, char const*, addrinfo const*, addrinfo** list)
        {
            EXPECT_EQ(over.wait_until(std::chrono::system_clock::now() + 10s), std::future_status::ready);
            *list = entries.data();
            return 0;
        });

    EXPECT_EQ(Ip::getLocalIpForRemote("host", 7), "192.0.2.1");

    ASSERT_THAT(deadlines, SizeIs(1));
    EXPECT_EQ(deadlines[0].seconds, 8);
    EXPECT_EQ(deadlines[0].nanoseconds, 0);
}

TEST_F(LocalIpOnAThreadTest, ZeroMeansNoTimedWait)
{
    SteadyClockDouble const clock(1s);

    EXPECT_EQ(Ip::getLocalIpForRemote("host", 0), "192.0.2.1");

    EXPECT_EQ(clock.readings(), 0U);
    EXPECT_EQ(pthreadCreate.count(), 1U);
}

TEST_F(LocalIpOnAThreadTest, WithoutAThreadTheCallerLooksItUpAndDoesNotWait)
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

TEST_F(InterfaceNameTest, InterfaceWithTheAddressIsFoundAndLoggedAfterTheListIsFreed)
{
    letSystemHave({{"lo", v4("127.0.0.1")}, {"eth0", v4("192.0.2.1")}, {"eth0", v6("fe80::1", 2)}});
    letLoggingBeAnEvent();

    EXPECT_EQ(Ip::networkIfcNameForIp(ip(v4("192.0.2.1"))), "eth0");

    EXPECT_THAT(events.take(),
                ElementsAre("freeifaddrs lo", "log Found IP address 192.0.2.1 on network interface eth0"));
    EXPECT_THAT(log.lines(),
                ElementsAre(isLine(Severity::Debug, "", "Found IP address 192.0.2.1 on network interface eth0")));
}

TEST_F(InterfaceNameTest, LastInterfaceWithTheAddressWins)
{
    letSystemHave(
        {{"eth0", v4("192.0.2.1")}, {"eth1", v4("192.0.2.1")}, {"eth2", v4("192.0.2.1")}, {"eth3", v4("192.0.2.2")}});

    EXPECT_EQ(Ip::networkIfcNameForIp(ip(v4("192.0.2.1"))), "eth2");
}

TEST_F(InterfaceNameTest, ScopeDoesNotTellInterfacesApart)
{
    letSystemHave({{"eth0", v6("fe80::1", 2)}, {"eth1", v6("fe80::1", 3)}});

    EXPECT_EQ(Ip::networkIfcNameForIp(ip(v6("fe80::1", 2))), "eth1");
}

TEST_F(InterfaceNameTest, EntriesWithoutAnIpAddressAreSkipped)
{
    auto packet = v4("192.0.2.1");
    packet.ss_family = AF_PACKET;
    letSystemHave({{"ppp0", {}}, {"eth0", packet}, {"eth1", v4("192.0.2.1")}, {"ppp1", {}}, {"eth2", packet}});

    EXPECT_EQ(Ip::networkIfcNameForIp(ip(v4("192.0.2.1"))), "eth1");

    EXPECT_THAT(log.lines(), SizeIs(1)); // none of them is an address that is refused
}

TEST_F(InterfaceNameTest, AddressThatNoInterfaceCarriesIsLoggedAndThrows)
{
    letSystemHave({{"lo", v4("127.0.0.1")}, {"lo", v6("::1")}});
    std::string const line = "Could not find any network interface with IP address 192.0.2.1 assigned";
    expectError(line);
    letLoggingBeAnEvent();

    EXPECT_THAT([] { Ip::networkIfcNameForIp(ip(v4("192.0.2.1"))); },
                ThrowsMessage<std::invalid_argument>(StrEq("No network interface with expected IP address found.")));

    EXPECT_THAT(events.take(), ElementsAre("freeifaddrs lo", "log " + line));
    EXPECT_THAT(log.lines(), ElementsAre(isLine(Severity::Error, "", line)));
}

TEST_F(InterfaceNameTest, NoInterfaceAtAllIsNoneWithTheAddress)
{
    letSystemHave({});
    expectError("Could not find any network interface with IP address ::1 assigned");

    EXPECT_THAT([] { Ip::networkIfcNameForIp(ip(v6("::1"))); },
                ThrowsMessage<std::invalid_argument>(StrEq("No network interface with expected IP address found.")));
}

TEST_F(InterfaceNameTest, AddressThatCannotBePrintedThrowsWhatPrintingThrows)
{
    letSystemHave({{"lo", v4("127.0.0.1")}});
    auto const address = ip(v4("127.0.0.1"));
    const_cast<sockaddr*>(address.sockaddr())->sa_family = AF_UNIX;
    expectError("Neither IPv4 nor IPv6: cannot convert to string");

    EXPECT_THAT([&] { Ip::networkIfcNameForIp(address); },
                ThrowsMessage<std::runtime_error>(
                    StrEq("IP address is neither v4 nor v6: don't now how to convert it to string")));

    EXPECT_THAT(events.take(), ElementsAre("freeifaddrs lo"));
}

TEST_F(InterfaceNameTest, FailureToListTheInterfacesIsLoggedWithItsErrnoAndThrown)
{
    getifaddrsDouble.failCall(1, -1, ENOBUFS);
    log.onLine([](LogLine const&) { errno = 0; });
    std::string const line = "networkIfcNameForIp: getifaddrs failed with 105(No buffer space available)";
    expectError(line);

    EXPECT_THAT([] { Ip::networkIfcNameForIp(ip(v4("192.0.2.1"))); },
                ThrowsMessage<std::runtime_error>(StrEq("Failed to get details about IP address")));

    EXPECT_THAT(log.lines(), ElementsAre(isLine(Severity::Error, "", line)));
    EXPECT_THAT(events.take(), IsEmpty());
}

}

}
