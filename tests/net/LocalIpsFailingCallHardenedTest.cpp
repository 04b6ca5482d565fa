// What a monitor of the hardened build leaves behind when one of its calls fails: nothing.

#include "net/LocalIpsFailingCallFixture.h"

#include <sys/types.h>

#include <cerrno>
#include <string>

namespace Halden::Tavro::Utils
{

namespace
{

using namespace TestSupport;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

class LocalIpsFailingCallHardenedTest : public LocalIpsFailingCallFixture
{
protected:
    std::string left() { return kernel.listsInUse() > 0 ? "a list" : socketLeft(); }

    std::string listLeft()
    {
        kernel.forgetCalls();
        return kernel.listsInUse() > 0 ? "a list" : "";
    }
};

TEST_F(LocalIpsFailingCallHardenedTest, LifeWithAFailedCallLeavesNoSocketNoThreadAndNoList)
{
    auto const failures = {callsOf("bind", bindDouble, -1, EADDRINUSE), callsOf("fcntl", fcntlDouble, -1, EINVAL),
                           callsOf("pthread_create", pthreadCreate, EAGAIN, 0),
                           callsOf("getifaddrs", getifaddrsDouble, -1, ENOMEM),
                           // The receiver's wait ends all the same: with its time-out, which comes at once here.
                           doneCallsOf("send", sendDouble, ssize_t{-1}, ENOBUFS), allocations()};

    EXPECT_THAT(leftByFailingCalls(failures, live, [this] { return left(); }), IsEmpty());
}

TEST_F(LocalIpsFailingCallHardenedTest, ListThatCouldNotBeReadAfterLostEventsIsReadLater)
{
    LocalIps sut({}, {}, {});
    auto const loseEvents = [&]
    {
        kernel.send(deleted("10.0.0.1")); // which has come again in the meantime
        give(1, ENOBUFS);
        give(0, 0);
        EXPECT_THAT(addressesOf(sut), UnorderedElementsAre("10.0.0.1", "fe80::1"));
    };

    EXPECT_THAT(
        leftByFailingCalls({callsOf("recv", recvDouble, -1, EIO), callsOf("getifaddrs", getifaddrsDouble, -1, ENOMEM)},
                           loseEvents, [this] { return listLeft(); }),
        IsEmpty());
}

TEST_F(LocalIpsFailingCallHardenedTest, AddressWhoseEventFoundNoMemoryIsReadFromTheList)
{
    ReceiverMemory memory;
    auto const gain = [&]
    {
        kernel.setAddresses({"10.0.0.1"});
        LocalIps sut({}, {}, memory.onError());
        kernel.setAddresses({"10.0.0.1", "2001:db8:1:2:3:4:5:6"});
        give(1, EIO);
        kernel.send(added("2001:db8:1:2:3:4:5:6"));
        give(1, EIO);
        EXPECT_THAT(addressesOf(sut), UnorderedElementsAre("10.0.0.1", "2001:db8:1:2:3:4:5:6"));
    };

    EXPECT_THAT(leftByFailingCalls({memory.calls()}, gain, [this] { return left(); }), IsEmpty());
}

TEST_F(LocalIpsFailingCallHardenedTest, ListThatFoundNoMemoryAfterLostEventsIsReadLater)
{
    ReceiverMemory memory;
    auto const loseEvents = [&]
    {
        kernel.setAddresses({"10.0.0.1", "fe80::1"});
        LocalIps sut({}, {}, memory.onError());
        kernel.setAddresses({"10.0.0.2", "2001:db8:1:2:3:4:5:6"});
        give(1, ENOBUFS);
        give(1, EIO);
        give(0, 0);
        EXPECT_THAT(addressesOf(sut), UnorderedElementsAre("10.0.0.2", "2001:db8:1:2:3:4:5:6"));
    };

    EXPECT_THAT(leftByFailingCalls({memory.calls()}, loseEvents, [this] { return left(); }), IsEmpty());
}

}

}
