// What a monitor leaves behind when one of its calls fails, in either build.

#include "net/LocalIpsFailingCallFixture.h"

#include <cerrno>
#include <stdexcept>
#include <string>
#include <vector>

namespace Halden::Tavro::Utils
{

namespace
{

using namespace TestSupport;
using testing::IsEmpty;

class LocalIpsFailingCallTest : public LocalIpsFailingCallFixture
{
protected:
    /// With the monitor, the socket stays.
    std::string forgetCalls()
    {
        kernel.forgetCalls();
        return "";
    }
};

TEST_F(LocalIpsFailingCallTest, SocketThatCannotBeOpenedLeavesNothing)
{
    EXPECT_THAT(
        leftByFailingCalls({callsOf("socket", socketDouble, -1, EMFILE)}, live, [this] { return socketLeft(); }),
        IsEmpty());
}

TEST_F(LocalIpsFailingCallTest, AddressesThatFindNoMemoryAreCopiedLater)
{
    LocalIps sut({}, {}, {});
    ASSERT_TRUE(kernel.waitUntilIdle());

    EXPECT_THAT(leftByFailingCalls({allocations()}, [&sut] { sut.addresses(); }), IsEmpty());
}

TEST_F(LocalIpsFailingCallTest, EventIsReceivedAfterACallOfTheReceiverHasFailed)
{
    int errors = 0;
    LocalIps sut({}, {}, [&errors] { ++errors; });
    auto const come = [&](std::string const& event, std::vector<std::string> const& addresses)
    {
        ASSERT_TRUE(kernel.waitUntilIdle());
        kernel.send(event);
        ASSERT_TRUE(kernel.waitUntilIdle());
        EXPECT_EQ(addressesOf(sut), addresses);
    };
    auto const comeAndGo = [&]
    {
        come(added("10.0.0.2"), {"10.0.0.1", "fe80::1", "10.0.0.2"});
        come(deleted("10.0.0.2"), {"10.0.0.1", "fe80::1"});
    };

    EXPECT_THAT(leftByFailingCalls({callsOf("poll", pollDouble, -1, EINTR), callsOf("recv", recvDouble, -1, EIO)},
                                   comeAndGo, [this] { return forgetCalls(); }),
                IsEmpty());

    EXPECT_EQ(errors, 4); // one for each failure
}

// The exact build handles the event again, the hardened build reads the list again.
TEST_F(LocalIpsFailingCallTest, ReceiverThatFindsNoMemoryLeavesNothing)
{
    ReceiverMemory memory;
    auto const receive = [&]
    {
        LocalIps sut({}, {}, memory.onError());
        give(1, EIO);
        kernel.send(added("2001:db8:1:2:3:4:5:6"));
        give(1, EIO);
        if (addressesOf(sut).size() != 3)
        {
            throw std::runtime_error("not received");
        }
    };

    EXPECT_THAT(leftByFailingCalls({memory.calls()}, receive, [this] { return socketLeft(); }), IsEmpty());
}

}

}
