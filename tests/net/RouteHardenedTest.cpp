#include <utils/Route.h>

#include "net/RouteFixture.h"

#include <gmock/gmock.h>

namespace Halden::Tavro::Utils
{

namespace
{

using testing::ElementsAre;
using namespace TestSupport;

using RouteHardenedTest = RouteFixture;

TEST_F(RouteHardenedTest, ConnectedSocketIsClosedOnceItHasToldItsAddress)
{
    EXPECT_EQ(Ip::internalLocalIpForRemote("host"), "192.0.2.1");

    EXPECT_THAT(takeCalls(), ElementsAre("socket 2 11 1", "connect 4711 198.51.100.1 16", "getsockname 4711 16",
                                         "close 4711", "freeaddrinfo 1"));
}

TEST_F(RouteHardenedTest, SocketOfTheNumberZeroIsClosedToo)
{
    setNextSocket(0);

    EXPECT_EQ(Ip::internalLocalIpForRemote("host"), "192.0.2.1");

    EXPECT_THAT(takeCalls(), testing::Contains("close 0"));
}

}

}
