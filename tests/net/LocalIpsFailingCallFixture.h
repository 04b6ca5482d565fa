#pragma once

#include "net/FakeNetlink.h"
#include "net/Monitor.h"
#include "net/NetlinkMessages.h"
#include "scheduling/ThreadDoubles.h"
#include "support/FailingCalls.h"

#include <gmock/gmock.h>

#include <string>

namespace Halden::Tavro::TestSupport
{

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
