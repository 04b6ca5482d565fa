#pragma once

#include "net/FakeNetlink.h"
#include "net/Monitor.h"
#include "net/NetlinkMessages.h"
#include "scheduling/ThreadDoubles.h"
#include "support/FailingCalls.h"

#include <gmock/gmock.h>

#include <cstddef>
#include <functional>
#include <string>
#include <utility>

namespace Halden::Tavro::TestSupport
{

/// Lets allocations of a receiver thread fail, from one error of its socket to the next.
class ReceiverMemory
{
public:
    /// The monitor's onReceiveError.
    std::function<void()> onError()
    {
        return [this]
        {
            hasFailed = isArmed && allocationHasFailed();
            isArmed = !isArmed && failing > 0;
            if (isArmed)
            {
                failNextAllocation(AllocationFailure::BadAlloc, failing - 1);
            }
        };
    }

    FailingCalls calls()
    {
        return {"new", [this](std::size_t n) { failing = n; },
                [this]
                {
                    failing = 0;
                    return std::exchange(hasFailed, false);
                }};
    }

private:
    std::size_t failing{0}; // which one; 0 for none
    bool isArmed{false};
    bool hasFailed{false};
};

/// Monitors whose kernel the test plays, with calls that fail.
class LocalIpsFailingCallFixture : public testing::Test
{
protected:
    LocalIpsFailingCallFixture()
    {
        pthreadCreate.reset();
        kernel.setAddresses({"10.0.0.1", "fe80::1"});
    }

    ~LocalIpsFailingCallFixture() override { pthreadCreate.reset(); }

    static void live() { Utils::LocalIps({}, {}, {}); }

    std::string socketLeft()
    {
        kernel.forgetCalls();
        return kernel.isOpen() ? "a socket" : "";
    }

    /// Lets the receiver thread have this, and waits until it waits again.
    void give(int pollResult, int recvError)
    {
        FakeNetlink::Pass pass;
        pass.pollResult = pollResult;
        pass.recvError = recvError;
        kernel.add(pass);
        ASSERT_TRUE(kernel.waitUntilIdle());
    }

    FakeNetlink kernel;
};

}
