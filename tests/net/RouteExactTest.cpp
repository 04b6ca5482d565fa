#include <utils/Route.h>

#include "net/RouteFixture.h"

#include <gmock/gmock.h>

namespace Halden::Tavro::Utils
{

namespace
{

using testing::ElementsAre;
using namespace TestSupport;

using RouteExactTest = RouteFixture;

// kept: services look up once, or seldom, and lose few descriptors
TEST_F(RouteExactTest, ConnectedSocketStaysOpen)
{
    EXPECT_EQ(Ip::internalLocalIpForRemote("host"), "192.0.2.1");

    EXPECT_THAT(takeCalls(),
                ElementsAre("socket 2 11 1", "connect 4711 198.51.100.1 16", "getsockname 4711 16", "freeaddrinfo 1"));
}

}

}
