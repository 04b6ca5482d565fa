// The monitor on real interfaces.

#include <utils/LocalIps.h>

#include "net/KernelFixture.h"
#include "support/ChildProcess.h"
#include "support/Resources.h"
#include "support/WaitFor.h"

#include <gmock/gmock.h>

#include <fcntl.h>
#include <net/if.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <string>
#include <vector>

namespace Halden::Tavro::Utils
{

namespace
{

using Log::Severity;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::UnorderedElementsAre;
using testing::UnorderedElementsAreArray;
using namespace std::chrono_literals;
using namespace TestSupport;

using LocalIpsKernelTest = KernelFixture;

TEST_F(LocalIpsKernelTest, SeesAddressesComeAndGoAndMayBeAskedInCallbacks)
{
    inNetworkNamespace(
        []
        {
            NetworkControl control;
            Reports reports;
            LocalIps* monitor = nullptr;
            std::promise<std::vector<std::string>> list;
            auto const added = [&](IpAddress const& ip)
            {
                reports.as("+")(ip);
                if (ip.isv4() && !ip.isLoopback())
                {
                    list.set_value(addressesOf(*monitor));
                }
            };
            LocalIps sut(added, reports.as("-"), [] { ADD_FAILURE(); });
            monitor = &sut;
            EXPECT_THAT(addressesOf(sut), ElementsAre("127.0.0.1", "::1"));

            control.addAddress("lo", "10.0.0.1");
            control.addAddress("lo", "fd00::1", "fd00::2");
            EXPECT_TRUE(reports.waitForCount(4));
            EXPECT_THAT(addressesOf(sut), ElementsAre("127.0.0.1", "::1", "10.0.0.1", "fd00::1"));
            control.removeAddress("lo", "10.0.0.1");
            control.removeAddress("lo", "fd00::1", "fd00::2");
            EXPECT_TRUE(reports.waitForCount(6));

            auto listed = list.get_future();
            ASSERT_TRUE(becomesReady(listed, 1min));
            EXPECT_THAT(listed.get(), ElementsAre("127.0.0.1", "::1", "10.0.0.1"));
            EXPECT_THAT(reports.all(),
                        ElementsAre("+127.0.0.1", "+::1", "+10.0.0.1", "+fd00::1", "-10.0.0.1", "-fd00::1"));
            EXPECT_THAT(addressesOf(sut), ElementsAre("127.0.0.1", "::1"));
        });
}

TEST_F(LocalIpsKernelTest, FiveHundredChangesLeaveTheListOfTheSystem)
{
    inNetworkNamespace(
        []
        {
            NetworkControl control;
            std::atomic<int> seen{0};
            auto const count = [&seen](auto const& /*ip*/) { ++seen; };
            LocalIps sut(count, count, [] { ADD_FAILURE(); });
            int const atStart = seen;
            int sent = 0;
            int removed = 0;
            // The socket's buffer holds some 300 events: more than 200 are never on their way.
            auto const pace = [&]
            {
                ++sent;
                ASSERT_TRUE(waitFor([&] { return sent - (seen - atStart) < 200; }, 1min));
            };

            for (int i = 0; i < 300; ++i)
            {
                control.addAddress("lo", numbered("10.0.", i));
                pace();
                if (i % 3 != 0)
                {
                    control.removeAddress("lo", numbered("10.0.", removed++));
                    pace();
                }
            }

            EXPECT_EQ(sent, 500);
            EXPECT_TRUE(waitFor([&] { return seen - atStart == 500; }, 1min));
            EXPECT_THAT(addressesOf(sut), UnorderedElementsAreArray(systemAddresses()));
        });
}

TEST_F(LocalIpsKernelTest, AddressThatComesBeforeTheStartReadsItIsReportedOnce)
{
    std::string const warning = "handleNewAddress(10.0.0.1): IP is already in our list, doing nothing";
    capture.expect(isLine(Severity::Warning, "LocalIps", warning));
    inNetworkNamespace(
        []
        {
            Reports reports;
            getifaddrsDouble.replace(
                [&reports](ifaddrs** list)
                {
                    NetworkControl().addAddress("lo", "10.0.0.1");
                    EXPECT_TRUE(reports.waitForCount(1));
                    return getifaddrsDouble.passOn(list);
                });

            LocalIps sut(reports.as("+"), reports.as("-"), [] { ADD_FAILURE(); });

            EXPECT_THAT(reports.all(), ElementsAre("+10.0.0.1", "+127.0.0.1", "+::1"));
            EXPECT_THAT(addressesOf(sut), ElementsAre("10.0.0.1", "127.0.0.1", "::1"));
        });
    EXPECT_EQ(capture.count(isLine(Severity::Warning, "LocalIps", warning)), 1U);
}

TEST_F(LocalIpsKernelTest, TwoMonitorsSeeTheSame)
{
    inNetworkNamespace(
        []
        {
            NetworkControl control;
            Reports firstReports;
            Reports secondReports;
            LocalIps first(firstReports.as("+"), firstReports.as("-"), [] { ADD_FAILURE(); });
            auto second = std::make_unique<LocalIps>(secondReports.as("+"), secondReports.as("-"), nullptr);

            control.addAddress("lo", "10.0.0.1");
            EXPECT_TRUE(firstReports.waitForCount(3) && secondReports.waitForCount(3));
            EXPECT_EQ(firstReports.all(), secondReports.all());
            second.reset();
            control.removeAddress("lo", "10.0.0.1");

            EXPECT_TRUE(firstReports.waitForCount(4));
            EXPECT_THAT(addressesOf(first), ElementsAre("127.0.0.1", "::1"));
        });
}

// kept: callbacks are told of addresses, not of interfaces, so an address counts once
TEST_F(LocalIpsKernelTest, AddressOfTwoInterfacesIsGoneAfterTheFirstDeletion)
{
    capture.expect(isLine(Severity::Warning, "LocalIps", HasSubstr("10.0.0.1): IP is already in our list")));
    inNetworkNamespace(
        []
        {
            NetworkControl control;
            control.addInterface("link0", "veth");
            control.addAddress("link0", "10.0.0.1");
            control.addAddress("lo", "10.0.0.1");
            Reports reports;
            LocalIps sut(reports.as("+"), reports.as("-"), [] { ADD_FAILURE(); });

            control.removeAddress("link0", "10.0.0.1");

            EXPECT_TRUE(reports.waitForCount(4));
            EXPECT_EQ(reports.all().back(), "-10.0.0.1");
            EXPECT_THAT(addressesOf(sut), UnorderedElementsAre("127.0.0.1", "::1"));
            EXPECT_THAT(systemAddresses(), testing::Contains("10.0.0.1"));
        });
}

TEST_F(LocalIpsKernelTest, DestructionTakesAtMostAboutTwoSecondsAndLeavesNothingBehind)
{
    auto const descriptors = openDescriptors();
    auto const threads = runningThreads();
    auto const interfaces = if_nameindex();
    auto const before = systemAddresses();
    std::chrono::steady_clock::duration duration{};

    inNetworkNamespace(
        [&]
        {
            NetworkControl control;
            control.addInterface("link0", "veth");
            control.addAddress("link0", "10.0.0.1");
            Reports reports;
            auto sut = std::make_unique<LocalIps>(reports.as("+"), nullptr, nullptr);
            control.addAddress("link0", "10.0.0.2");
            EXPECT_TRUE(reports.waitForCount(4));          // so the receiver thread is at work
            EXPECT_EQ(openDescriptors(), descriptors + 2); // one is the control's own
            auto const start = std::chrono::steady_clock::now();
            sut.reset();
            duration = std::chrono::steady_clock::now() - start;
            EXPECT_EQ(openDescriptors(), descriptors + 1);
        });

    EXPECT_LT(duration, 5s);
    EXPECT_EQ(openDescriptors(), descriptors);
    EXPECT_TRUE(waitFor([&] { return runningThreads() <= threads; })); // one that was joined may still be listed
    EXPECT_EQ(systemAddresses(), before);
    for (auto const* interface = interfaces; interface->if_index != 0; ++interface)
    {
        EXPECT_EQ(if_nametoindex(interface->if_name), interface->if_index);
    }
    EXPECT_EQ(if_nametoindex("link0"), 0U);
    if_freenameindex(interfaces);
}

// A service may run without a standard input.
TEST(LocalIpsDescriptorTest, SocketMayHaveTheNumberZero)
{
    auto const result = runInChild(
        []
        {
            auto const isOpen = [] { return fcntl(STDIN_FILENO, F_GETFD) != -1; };
            close(STDIN_FILENO);
            auto sut = std::make_unique<LocalIps>(nullptr, nullptr, nullptr);
            bool const wasOpen = isOpen();
            sut.reset();
            return wasOpen && !isOpen() ? 0 : 1;
        });

    EXPECT_EQ(result.exitCode, 0) << result.output;
}

}

}
