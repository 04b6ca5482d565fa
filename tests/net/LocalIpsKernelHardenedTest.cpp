// The monitor on real interfaces, where the exact build hangs, loses track or leaks.

#include <utils/LocalIps.h>

#include "net/KernelFixture.h"
#include "support/ClockTime.h"
#include "support/FailingCalls.h"
#include "support/Resources.h"
#include "support/WaitFor.h"

#include <gmock/gmock.h>

#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <fstream>
#include <functional>
#include <future>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>

namespace Halden::Tavro::Utils
{

namespace
{

using Log::Severity;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;
using testing::UnorderedElementsAreArray;
using namespace std::chrono_literals;
using namespace TestSupport;

class LocalIpsKernelHardenedTest : public KernelFixture
{
protected:
    ~LocalIpsKernelHardenedTest() override
    {
        // The receiver thread is never left behind with a closed socket.
        EXPECT_EQ(capture.count(isLine(Severity::Error, "LocalIps", HasSubstr("errno 9 "))), 0U);
    }

    void expectWarningsOf(std::string const& what)
    {
        capture.expect(isLine(Severity::Warning, "LocalIps", HasSubstr(what)));
    }

    void expectLostEvents()
    {
        capture.expect(
            isLine(Severity::Error, "LocalIps",
                   "receiverThread: recv on NETLINK_ROUTE socket failed, errno 105 (No buffer space available),"));
    }
};

/// A callback that waits where the test wants the receiver thread to be.
class Gate
{
public:
    void pass()
    {
        arrived.set_value();
        EXPECT_TRUE(becomesReady(released, 1min));
    }

    bool waitForArrival() { return becomesReady(arrived.get_future(), 1min); }
    void open() { release.set_value(); }

private:
    std::promise<void> arrived;
    std::promise<void> release;
    std::shared_future<void> released{release.get_future()};
};

TEST_F(LocalIpsKernelHardenedTest, Ipv6AddressesAppearAndGoAndThenAnIpv4OneWithoutABusyLoop)
{
    inNetworkNamespace(
        []
        {
            NetworkControl control;
            Reports reports;
            std::atomic<clockid_t> receiversClock{0};
            auto const onNew = [&](IpAddress const& ip)
            {
                clockid_t clock{};
                EXPECT_EQ(pthread_getcpuclockid(pthread_self(), &clock), 0);
                receiversClock = clock;
                reports.as("+")(ip);
            };
            auto sut = std::make_unique<LocalIps>(onNew, reports.as("-"), [] { ADD_FAILURE(); });
            auto const pollsAtStart = static_cast<long>(pollDouble.count());
            auto const begin = std::chrono::steady_clock::now();

            control.addAddress("lo", "fd00::1"); // the kernel reports it without IFA_LOCAL, and not at once
            EXPECT_TRUE(reports.waitForCount(3));
            control.addAddress("lo", "fd00::2");
            EXPECT_TRUE(reports.waitForCount(4));
            control.removeAddress("lo", "fd00::1");
            control.addAddress("lo", "10.0.0.1");

            EXPECT_TRUE(reports.waitForCount(6));
            EXPECT_THAT(reports.all(),
                        ElementsAre("+127.0.0.1", "+::1", "+fd00::1", "+fd00::2", "-fd00::1", "+10.0.0.1"));
            EXPECT_THAT(addressesOf(*sut), ElementsAre("127.0.0.1", "::1", "fd00::2", "10.0.0.1"));
            auto const polls = pollDouble.count();
            auto const used = timeOf(receiversClock);
            EXPECT_TRUE(waitFor([&] { return pollDouble.count() > polls + 1; }, 1min)); // at least one that timed out
            EXPECT_LT(timeOf(receiversClock) - used, 100ms);
            auto const start = std::chrono::steady_clock::now();
            auto const timeOuts = std::chrono::duration_cast<std::chrono::seconds>(start - begin).count();
            EXPECT_LE(static_cast<long>(pollDouble.count()) - pollsAtStart, 4 + timeOuts + 2);
            sut.reset();
            EXPECT_LT(std::chrono::steady_clock::now() - start, 2s);
        });
}

TEST_F(LocalIpsKernelHardenedTest, InterfaceComesUpAndGoesDownWithItsLinkLocalAddress)
{
    expectWarningsOf("IP is already in our list"); // reported again once it has proved unique
    inNetworkNamespace(
        []
        {
            NetworkControl control;
            control.addInterface("link0", "veth");
            std::ofstream("/proc/sys/net/ipv6/conf/link0/addr_gen_mode") << 0 << std::flush;
            Reports reports;
            LocalIps sut(reports.as("+"), reports.as("-"), [] { ADD_FAILURE(); });

            control.setUp("link0");
            control.setUp("veth0"); // the other end, which link0 needs to run
            ASSERT_TRUE(reports.waitForCount(3));
            control.setDown("link0");
            ASSERT_TRUE(reports.waitForCount(4));

            auto const all = reports.all();
            EXPECT_THAT(all[2], StartsWith("+fe80::"));
            EXPECT_EQ(all[3], "-" + all[2].substr(1));
            EXPECT_THAT(addressesOf(sut), ElementsAre("127.0.0.1", "::1"));
        });
}

TEST_F(LocalIpsKernelHardenedTest, ListIsThatOfTheSystemAfterABurstThatOverrunsTheSocket)
{
    expectLostEvents();
    inNetworkNamespace(
        []
        {
            NetworkControl control;
            control.addAddress("lo", "10.0.0.1");
            Gate gate;
            Reports reports;
            auto const onNew = [&](IpAddress const& ip)
            {
                ip.string() == "10.0.0.2" ? gate.pass() : void();
                reports.as("+")(ip);
            };
            LocalIps sut(onNew, reports.as("-"), [&reports] { reports.add("error"); });
            control.addAddress("lo", "10.0.0.2");
            ASSERT_TRUE(gate.waitForArrival());

            for (int i = 0; i < 1000; ++i)
            {
                control.addAddress("lo", numbered("10.1.", i));
            }
            control.removeAddress("lo", "10.0.0.1");
            control.removeAddress("lo", "10.0.0.2");
            gate.open();

            auto const isRight = [&sut]
            {
                auto texts = addressesOf(sut);
                std::sort(texts.begin(), texts.end());
                return texts == systemAddresses();
            };
            EXPECT_TRUE(waitFor(isRight, 1min));
            EXPECT_EQ(sut.addresses().size(), 1002U);
            EXPECT_TRUE(reports.waitForCount(3 + 1 + 1 + 2 + 1000));
            EXPECT_EQ(reports.all().size(), 3U + 1U + 1U + 2U + 1000U); // each change once
        });
}

// From the overrun until the queue is empty, the kernel drops events and says no more about it.
TEST_F(LocalIpsKernelHardenedTest, EventsThatAreLostWhileTheQueueIsWorkedOffAreSeenToo)
{
    expectLostEvents();
    inNetworkNamespace(
        []
        {
            NetworkControl control;
            letSocketsHoldFewEvents();
            Gate gate;
            Reports reports;
            bool hasFailed = false;
            NetworkControl controlOfReceiver;
            auto const onNew = [&](IpAddress const& ip)
            {
                reports.as("+")(ip);
                ip.string() == "10.0.0.1" ? gate.pass() : void();
                if (std::exchange(hasFailed, false))
                {
                    controlOfReceiver.addAddress("lo", "10.0.0.99");
                }
            };
            LocalIps sut(onNew, reports.as("-"), [&hasFailed] { hasFailed = true; });
            control.addAddress("lo", "10.0.0.1");
            ASSERT_TRUE(gate.waitForArrival());

            for (int i = 0; i < 50; ++i)
            {
                control.addAddress("lo", numbered("10.1.", i));
            }
            gate.open();

            EXPECT_TRUE(reports.waitForText("+10.0.0.99"));
            EXPECT_TRUE(reports.waitForCount(2 + 1 + 50 + 1));
            EXPECT_THAT(addressesOf(sut), UnorderedElementsAreArray(systemAddresses()));
        });
}

/// Runs a piece again and again, and compares what the process has got, to the unit, after the first times and at the
/// end.
void expectNothingLeftBehind(std::function<void()> const& piece)
{
    Log::LoggerProxy::instance().setThreshold(Severity::Critical); // the capture keeps what it gets
    EXPECT_EQ(pollDouble(nullptr, 0, 0), 0); // so that it has a place for its calls, even if no thread gets that far
    Holdings before{};
    std::size_t bytes = 0;
    for (int i = 0; i < 1100; ++i)
    {
        if (i == 100)
        {
            before = holdings();
            bytes = heapBytes();
        }
        piece();
        KernelFixture::resetDoubles(); // which remember their calls
    }

    EXPECT_TRUE(isBackTo(before));
    EXPECT_LT(heapBytes(), bytes + 4096);
}

TEST_F(LocalIpsKernelHardenedTest, ThousandMonitorsLeaveNothingBehind)
{
    inNetworkNamespace(
        []
        {
            auto const ignore = [](auto const& /*ip*/) {};
            expectNothingLeftBehind([&] { LocalIps(ignore, {}, {}).addresses(); });
        });
}

TEST_F(LocalIpsKernelHardenedTest, ThousandConstructionsThatFailLeaveNothingBehind)
{
    inNetworkNamespace(
        []
        {
            auto const refuse = [](auto const& /*ip*/) { throw std::logic_error("no use"); };
            expectNothingLeftBehind([&] { EXPECT_THROW(LocalIps(refuse, {}, {}), std::logic_error); });
        });
}

TEST_F(LocalIpsKernelHardenedTest, ConstructionThatFailsLeavesNoSocketNoThreadAndNoList)
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
