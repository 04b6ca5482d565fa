// The look-up on the caller's thread.

#include <utils/Route.h>

#include "net/RouteFixture.h"
#include "net/SocketAddresses.h"

#include <gmock/gmock.h>

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

namespace Halden::Tavro::Utils
{

namespace
{

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using testing::StrEq;
using testing::ThrowsMessage;
using namespace TestSupport;

using RouteTest = RouteFixture;

TEST_F(RouteTest, ResolverIsAskedForDatagramsOverIpv4)
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

TEST_F(RouteTest, ConnectedSocketIsAskedForItsAddress)
{
    EXPECT_EQ(Ip::internalLocalIpForRemote("host"), "192.0.2.1");

    EXPECT_THAT(takeCallsBut("close 4711"),
                ElementsAre("socket 2 11 1", "connect 4711 198.51.100.1 16", "getsockname 4711 16", "freeaddrinfo 1"));
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(RouteTest, SocketIsOfTheFamilyOfItsEntry)
{
    entries[0].ai_family = AF_UNSPEC;

    EXPECT_EQ(Ip::internalLocalIpForRemote("host"), "192.0.2.1");

    EXPECT_THAT(socketDouble.calls(), ElementsAre(std::make_tuple(AF_UNSPEC, 11, 1)));
}

TEST_F(RouteTest, SocketMayHaveTheNumberZero)
{
    setNextSocket(0);

    EXPECT_EQ(Ip::internalLocalIpForRemote("host"), "192.0.2.1");

    EXPECT_THAT(takeCallsBut("close 0"),
                ElementsAre("socket 2 11 1", "connect 0 198.51.100.1 16", "getsockname 0 16", "freeaddrinfo 1"));
}

TEST_F(RouteTest, EntriesAreTriedInOrderUntilOneIsConnected)
{
    letResolverFind({"198.51.100.1", "198.51.100.2", "198.51.100.3", "198.51.100.4"});
    socketDouble.failCall(1, -1, EMFILE);
    connectDouble.failCall(1, -1, ENETUNREACH);

    EXPECT_EQ(Ip::internalLocalIpForRemote("host"), "192.0.2.1");

    EXPECT_THAT(takeCallsBut("close 4712"),
                ElementsAre("socket 2 12 2", "close 4711", "socket 2 13 3", "connect 4712 198.51.100.3 18",
                            "getsockname 4712 16", "freeaddrinfo 1"));
    ASSERT_THAT(connectDouble.calls(), SizeIs(2));
    EXPECT_EQ(std::get<1>(connectDouble.calls()[0]), entries[1].ai_addr);
    EXPECT_EQ(std::get<2>(connectDouble.calls()[0]), 17U);
}

TEST_F(RouteTest, FailureOfTheResolverThrowsItsText)
{
    getaddrinfoDouble.failCall(1, EAI_AGAIN, 0);

    EXPECT_THAT(
        [] { Ip::internalLocalIpForRemote("host"); },
        ThrowsMessage<std::runtime_error>(StrEq("getaddrinfo failed with Temporary failure in name resolution")));

    EXPECT_THAT(takeCalls(), IsEmpty());
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(RouteTest, EveryCodeButZeroIsAFailureOfTheResolver)
{
    getaddrinfoDouble.failCall(1, 1, 0);

    EXPECT_THAT([] { Ip::internalLocalIpForRemote("host"); },
                ThrowsMessage<std::runtime_error>(StrEq("getaddrinfo failed with Unknown error")));

    EXPECT_EQ(socketDouble.count(), 0U);
}

TEST_F(RouteTest, Ipv6AddressIsRefusedByTheResolver)
{
    letResolverBeTheSystems();
    for (char const* const remote : {"::1", "2001:db8::1", "fe80::1%lo"})
    {
        EXPECT_THAT([&] { Ip::internalLocalIpForRemote(remote); },
                    ThrowsMessage<std::runtime_error>(
                        StrEq("getaddrinfo failed with Address family for hostname not supported")));
    }
    EXPECT_EQ(socketDouble.count(), 0U);
}

TEST_F(RouteTest, FailureToGetTheNameClosesTheSocketAndThrowsTheFirstErrno)
{
    letResolverFind({"198.51.100.1", "198.51.100.2"});
    getsocknameDouble.failCall(1, -1, ENOBUFS);

    EXPECT_THAT([] { Ip::internalLocalIpForRemote("host"); },
                ThrowsMessage<std::runtime_error>(StrEq("failed to get local socket name, errno=105")));

    EXPECT_THAT(takeCalls(),
                ElementsAre("socket 2 11 1", "connect 4711 198.51.100.1 16", "close 4711", "freeaddrinfo 1"));
    ASSERT_EQ(getsocknameDouble.count(), 1U);
    EXPECT_EQ(std::get<0>(getsocknameDouble.calls()[0]), 4711);
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(RouteTest, NegativeErrnoKeepsItsSign)
{
    getsocknameDouble.failCall(1, -1, -5);

    EXPECT_THAT([] { Ip::internalLocalIpForRemote("host"); },
                ThrowsMessage<std::runtime_error>(StrEq("failed to get local socket name, errno=-5")));
}

TEST_F(RouteTest, NoConnectedSocketIsAFailure)
{
    letResolverFind({"198.51.100.1", "198.51.100.2"});
    socketDouble.failCall(1, -1, EMFILE);
    connectDouble.failCall(1, -1, ENETUNREACH);

    EXPECT_THAT([] { Ip::internalLocalIpForRemote("host"); },
                ThrowsMessage<std::runtime_error>(StrEq("could not resolve IP or hostname")));

    EXPECT_THAT(takeCalls(), ElementsAre("socket 2 12 2", "close 4711", "freeaddrinfo 1"));
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(RouteTest, EmptyListIsAFailure)
{
    letResolverFind({});

    EXPECT_THAT([] { Ip::internalLocalIpForRemote("host"); },
                ThrowsMessage<std::runtime_error>(StrEq("could not resolve IP or hostname")));

    EXPECT_EQ(socketDouble.count(), 0U);
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(RouteTest, SeveralThreadsGetTheirOwnAnswers)
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

}

}
