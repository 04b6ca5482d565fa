// What a monitor of the hardened build leaves behind when one of the calls of its construction fails: nothing. That of
// the exact build leaves its socket, and ends the process once its thread runs.

#include <utils/LocalIps.h>

#include "net/KernelFixture.h"
#include "support/FailingCalls.h"

#include <gmock/gmock.h>

#include <cerrno>

namespace Halden::Tavro::Utils
{

namespace
{

using namespace TestSupport;
using testing::IsEmpty;

using LocalIpsFailingCallHardenedTest = KernelFixture;

TEST_F(LocalIpsFailingCallHardenedTest, ConstructionThatFailsLeavesNoSocketNoThreadAndNoList)
{
    inNetworkNamespace(
        []
        {
            auto const failures = {callsOf("getifaddrs", getifaddrsDouble, -1, ENOMEM), allocations()};

            EXPECT_THAT(leftByFailingCalls(failures, [] { LocalIps({}, {}, {}).addresses(); }), IsEmpty());
        });
}

}

}
