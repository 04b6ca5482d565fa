#include <utils/CodeMonitor.h>

#include "misc/ConditionDoubles.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <ctime>

namespace Halden::Tavro::Utils
{

namespace
{

using namespace TestSupport;
using namespace std::chrono_literals;

TEST(CodeMonitorWaitHardenedTest, OpeningReleasesTheThreadAlsoWhenItIsNoticedAfterTheNextClosing)
{
    CodeMonitor sut("sut");
    sut.closeBarrier();
    clockWait.reset();
    clockWait.replace(
        [&](auto*, auto*, clockid_t, timespec const*)
        {
            EXPECT_TRUE(sut.openBarrier());
            sut.closeBarrier();
            return ETIMEDOUT;
        });

    EXPECT_TRUE(sut.crossBarrier());

    EXPECT_EQ(clockWait.count(), 1U);
    EXPECT_FALSE(sut.waitTrapped(0ms));
}

}

}
