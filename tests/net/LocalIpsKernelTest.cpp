// The monitor on real interfaces, each test in a network namespace of its own.

#include <utils/LocalIps.h>

#include "net/Monitor.h"
#include "support/CallDouble.h"
#include "support/ChildProcess.h"
#include "support/LogCapture.h"
#include "support/NetworkNamespace.h"
#include "support/Resources.h"
#include "support/WaitFor.h"

#include <gmock/gmock.h>

#include <ifaddrs.h>
#include <net/if.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <fstream>
#include <future>
#include <iterator>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace Halden::Tavro::Utils
{

namespace
{

using Log::Severity;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::UnorderedElementsAre;
using testing::UnorderedElementsAreArray;
using namespace std::chrono_literals;
using namespace TestSupport;

CallDouble<int(ifaddrs**)> getifaddrsDouble{"getifaddrs"};

}

extern "C" int getifaddrs(ifaddrs** list) noexcept
{
    return getifaddrsDouble(list);
}

namespace
{

/// The addresses of all interfaces, without repetition.
std::vector<std::string> systemAddresses()
{
    std::vector<std::string> texts;
    ifaddrs* list = nullptr;
    EXPECT_EQ(getifaddrs(&list), 0);
    for (ifaddrs const* entry = list; entry != nullptr; entry = entry->ifa_next)
    {
        if (entry->ifa_addr != nullptr &&
            (entry->ifa_addr->sa_family == AF_INET || entry->ifa_addr->sa_family == AF_INET6))
        {
            texts.push_back(IpAddress::fromSockaddr(entry->ifa_addr).string());
        }
    }
    freeifaddrs(list);
    std::sort(texts.begin(), texts.end());
    texts.erase(std::unique(texts.begin(), texts.end()), texts.end());
    return texts;
}

/// What a monitor has reported.
class Reports
{
public:
    Monitor::AddressCallback as(char const* sign)
    {
        return [this, sign](IpAddress const& ip)
        {
            std::lock_guard const lock(mutex);
            texts.push_back(sign + ip.string());
        };
    }

    std::vector<std::string> all() const
    {
        std::lock_guard const lock(mutex);
        return texts;
    }

    bool waitForCount(std::size_t count) const
    {
        return waitFor([&] { return all().size() >= count; });
    }

private:
    mutable std::mutex mutex;
    std::vector<std::string> texts; // guarded by mutex
};

class LocalIpsKernelTest : public testing::Test
{
protected:
    LocalIpsKernelTest()
    {
        // The last poll finds the socket closed.
        capture.expect(isLine(Severity::Error, "LocalIps",
                              "receiverThread: recv on NETLINK_ROUTE socket failed, errno 9 (Bad file descriptor),"));
    }

    void SetUp() override
    {
        getifaddrsDouble.reset();
        if (auto const refusal = networkNamespaceRefusal())
        {
            GTEST_SKIP() << *refusal;
        }
    }

    LogCapture capture{Severity::Info};
};

std::string numbered(char const* prefix, int number)
{
    return prefix + std::to_string(number / 256) + "." + std::to_string(number % 256);
}

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
            ASSERT_EQ(listed.wait_for(10s), std::future_status::ready);
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
                ASSERT_TRUE(waitFor([&] { return sent - (seen - atStart) < 200; }));
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
            EXPECT_TRUE(waitFor([&] { return seen - atStart == 500; }));
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

TEST_F(LocalIpsKernelTest, LostEventsLeaveTheListWrongUntilTheMonitorIsMadeAnew)
{
    auto const failed =
        isLine(Severity::Error, "LocalIps",
               "receiverThread: recv on NETLINK_ROUTE socket failed, errno 105 (No buffer space available),");
    capture.expect(failed);
    inNetworkNamespace(
        []
        {
            NetworkControl control;
            std::promise<void> held;
            std::promise<void> release;
            auto const released = release.get_future().share();
            std::promise<void> failure;
            auto const hold = [&](IpAddress const& ip)
            {
                if (ip.string() == "10.0.0.1")
                {
                    held.set_value();
                    EXPECT_EQ(released.wait_for(10s), std::future_status::ready);
                }
            };
            auto sut = std::make_unique<LocalIps>(hold, nullptr, [&failure] { failure.set_value(); });
            control.addAddress("lo", "10.0.0.1");
            ASSERT_EQ(held.get_future().wait_for(10s), std::future_status::ready);

            for (int i = 0; i < 1000; ++i)
            {
                control.addAddress("lo", numbered("10.1.", i));
            }
            release.set_value();
            ASSERT_EQ(failure.get_future().wait_for(10s), std::future_status::ready);
            auto const start = std::chrono::steady_clock::now();
            std::vector<std::string> stale = addressesOf(*sut);
            sut.reset();
            auto const duration = std::chrono::steady_clock::now() - start;
            LocalIps anew({}, {}, {});

            EXPECT_LT(duration, 5s);
            EXPECT_LT(stale.size(), 1003U);
            EXPECT_THAT(addressesOf(anew), UnorderedElementsAreArray(systemAddresses()));
            EXPECT_EQ(anew.addresses().size(), 1003U);
        });
    EXPECT_EQ(capture.count(failed), 1U);
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
    EXPECT_TRUE(waitFor([&] { return runningThreads() == threads; })); // one that was joined may still be listed
    EXPECT_EQ(systemAddresses(), before);
    for (auto const* interface = interfaces; interface->if_index != 0; ++interface)
    {
        EXPECT_EQ(if_nametoindex(interface->if_name), interface->if_index);
    }
    EXPECT_EQ(if_nametoindex("link0"), 0U);
    if_freenameindex(interfaces);
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
        return waitFor([&] { return tries > count; });
    }

    static void print(std::string const& text)
    {
        auto const line = text + "\n";
        EXPECT_EQ(::write(STDOUT_FILENO, line.data(), line.size()), static_cast<ssize_t>(line.size()));
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
    RetryWatch::print("watching");

    control.setUp("link0");
    control.setUp("veth0"); // the other end, which link0 needs to run

    if (watch->hasSeenMoreThan(1000))
    {
        RetryWatch::print("more than 1000 tries");
    }
}

TEST_F(LocalIpsKernelTest, InterfaceThatComesUpWithALinkLocalAddressIsTriedWithoutEndAndBlocksTheDestructor)
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
        });

    EXPECT_EQ(result.signal, SIGALRM);
    EXPECT_EQ(result.output, "watching\nmore than 1000 tries\nwaiting\n");
}

}

}
