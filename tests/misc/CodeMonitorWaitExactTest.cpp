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

// kept: a wait ends when it finds the barrier open; the hardened build sees the opening all the same
TEST(CodeMonitorWaitExactTest, ClosingBeforeTheOpeningIsNoticedHoldsTheThreadWithoutTrappingIt)
{
    CodeMonitor sut("sut");
    sut.closeBarrier();
    clockWait.reset();
    clockWait.replace(
        [&](auto*, auto*, clockid_t, timespec const*)
        {
            if (clockWait.count() == 1)
            {
                EXPECT_TRUE(sut.openBarrier());
                sut.closeBarrier();
                return ETIMEDOUT;
            }
            EXPECT_FALSE(sut.waitTrapped(0ms));
            EXPECT_FALSE(sut.openBarrier());
            return 0;
        });

    EXPECT_TRUE(sut.crossBarrier());

    EXPECT_EQ(clockWait.count(), 2U);
}

}

}
