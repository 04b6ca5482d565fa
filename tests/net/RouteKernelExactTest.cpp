#include <utils/Route.h>

#include "net/RouteKernelFixture.h"
#include "support/Resources.h"

#include <gtest/gtest.h>

namespace Halden::Tavro::Utils
{

namespace
{

using namespace TestSupport;

using RouteKernelExactTest = RouteKernelFixture;

// kept: services look up once, or seldom, and lose few descriptors
TEST_F(RouteKernelExactTest, EachLookUpThatSucceedsCostsADescriptor)
{
    runBesideInterfaces(
        []
        {
            auto const before = openDescriptors();

            Ip::internalLocalIpForRemote("127.0.0.1");
            EXPECT_EQ(openDescriptors(), before + 1);
            Ip::getLocalIpForRemote("127.0.0.1", 5);
            EXPECT_EQ(openDescriptors(), before + 2);
        });
}

}

}
