#include <utils/Route.h>

#include "net/RouteKernelFixture.h"
#include "support/Resources.h"

#include <gtest/gtest.h>

#include <cstddef>

namespace Halden::Tavro::Utils
{

namespace
{

using namespace TestSupport;

using RouteKernelHardenedTest = RouteKernelFixture;

TEST_F(RouteKernelHardenedTest, TenThousandLookUpsLeaveNothingBehind)
{
    runBesideInterfaces(
        []
        {
            Holdings before{};
            std::size_t bytes = 0;
            for (int i = 0; i < 10'100; ++i)
            {
                if (i == 100)
                {
                    before = holdings();
                    bytes = heapBytes();
                }
                i % 10 == 0 ? Ip::getLocalIpForRemote("127.0.0.1", 5) : Ip::internalLocalIpForRemote("127.0.0.1");
            }

            EXPECT_TRUE(isBackTo(before));
            EXPECT_LT(heapBytes(), bytes + 4096); // the C library's own allocator leaves some play
        });
}

}

}
