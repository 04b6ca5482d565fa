// The monitor on real interfaces: the hazards of the exact build.

#include <utils/LocalIps.h>

#include "net/KernelFixture.h"
#include "support/ChildProcess.h"
#include "support/PrintingSink.h"
#include "support/WaitFor.h"

#include <gmock/gmock.h>

#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <future>
#include <memory>
#include <string>
#include <vector>

namespace Halden::Tavro::Utils
{

namespace
{

using Log::Severity;
using testing::UnorderedElementsAreArray;
using namespace std::chrono_literals;
using namespace TestSupport;

using LocalIpsKernelExactTest = KernelFixture;

// kept: who is told of the error constructs the monitor anew
TEST_F(LocalIpsKernelExactTest, LostEventsLeaveTheListWrongUntilTheMonitorIsMadeAnew)
{
    auto const failed =
        isLine(Severity::Error, "LocalIps",
               "receiverThread: recv on NETLINK_ROUTE socket failed, errno 105 (No buffer space available),");
    capture.expect(failed);
    inNetworkNamespace(
        []
        {
            NetworkControl control;
            letSocketsHoldFewEvents();
            std::promise<void> held;
            std::promise<void> release;
            auto const released = release.get_future().share();
            std::promise<void> failure;
            auto const hold = [&](IpAddress const& ip)
            {
                if (ip.string() == "10.0.0.1")
                {
                    held.set_value();
                    EXPECT_TRUE(becomesReady(released, 1min));
                }
            };
            auto sut = std::make_unique<LocalIps>(hold, nullptr, [&failure] { failure.set_value(); });
            control.addAddress("lo", "10.0.0.1");
            ASSERT_TRUE(becomesReady(held.get_future(), 1min));

            for (int i = 0; i < 50; ++i)
            {
                control.addAddress("lo", numbered("10.1.", i));
            }
            release.set_value();
            ASSERT_TRUE(becomesReady(failure.get_future(), 1min));
            // The events behind the lost ones, of which there are few, may be handled by now or not.
            EXPECT_LT(sut->addresses().size(), 53U);
            sut.reset();
            LocalIps anew({}, {}, {});

            EXPECT_THAT(addressesOf(anew), UnorderedElementsAreArray(systemAddresses()));
            EXPECT_EQ(anew.addresses().size(), 53U);
        });
    EXPECT_EQ(capture.count(failed), 1U);
}

/// Counts the tries, and ends the process by a signal three seconds after the destructor has begun to wait.
class RetryWatch : public Log::LoggerImplIfc
{
public:
    void write(Log::Record const& record) override
    {
        if (record.text == "IFA message contains no RTA of type IFA_ADDRESS")
        {
            ++tries;
        }
        else if (record.text == "waiting for receiver thread to stop...")
        {
            print("waiting");
            alarm(3);
        }
        else if (record.text == "receiver thread stopped")
        {
            print("stopped");
        }
    }

    bool hasSeenMoreThan(int count) const
    {
        return waitFor([&] { return tries > count; }, 1min);
    }

private:
    std::atomic<int> tries{0};
};

void bringUpWithLinkLocalAddress(NetworkControl& control)
{
    control.addInterface("link0", "veth");
    std::ofstream("/proc/sys/net/ipv6/conf/link0/addr_gen_mode") << 0 << std::flush;
    auto const watch = std::make_shared<RetryWatch>();
    Log::LoggerProxy::instance().setSink(watch);
    LocalIps const sut({}, {}, {});
    print("watching");

    control.setUp("link0");
    control.setUp("veth0"); // the other end, which link0 needs to run

    if (watch->hasSeenMoreThan(1000))
    {
        print("more than 1000 tries");
    }
}

// kept: no event is left out, also none that can never be handled
TEST_F(LocalIpsKernelExactTest, InterfaceThatComesUpWithALinkLocalAddressIsTriedWithoutEndAndBlocksTheDestructor)
{
    auto const result = runInChild(
        []
        {
            inNetworkNamespace(
                []
                {
                    NetworkControl control;
                    bringUpWithLinkLocalAddress(control);
                });
            return 0;
        },
        2min);

    EXPECT_EQ(result.signal, SIGALRM);
    EXPECT_EQ(result.output, "watching\nmore than 1000 tries\nwaiting\n");
}

}

}
