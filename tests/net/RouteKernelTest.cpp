// Asks the real kernel, about interfaces that a test makes in a network namespace of its own.

#include <utils/Route.h>

#include "support/ChildProcess.h"
#include "support/LogCapture.h"
#include "support/Resources.h"

#include <gmock/gmock.h>

#include <ifaddrs.h>
#include <net/if.h>
#include <sched.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <iostream>
#include <stdexcept>
#include <string>
#include <vector>

namespace Halden::Tavro::Utils
{

namespace
{

using Log::Severity;
using testing::ElementsAre;
using testing::StrEq;
using testing::ThrowsMessage;
using TestSupport::isLine;
using TestSupport::LogCapture;
using TestSupport::openDescriptors;

constexpr int refused = 77;

/// Into an empty network that goes away with this process. @return false when the system does not allow it
bool enterEmptyNetwork()
{
    if (unshare(CLONE_NEWNET) == 0)
    {
        return true;
    }
    auto const user = geteuid();
    if (unshare(CLONE_NEWUSER | CLONE_NEWNET) != 0)
    {
        std::cerr << strerror(errno);
        return false;
    }
    std::ofstream("/proc/self/uid_map") << "0 " << user << " 1";
    return true;
}

/// Runs a command of ip(8).
void ip(std::string const& command)
{
    if (std::system(("ip " + command).c_str()) != 0)
    {
        ADD_FAILURE() << "ip " << command;
    }
}

/// Two interfaces, of which eth0 has two IPv4 addresses and the first of them is on eth1 too; both have fe80::1.
void makeInterfaces()
{
    ip("link set lo up");
    ip("link add eth0 type veth peer name eth1");
    ip("address add 192.0.2.1/24 dev eth0");
    ip("address add 198.51.100.1/24 dev eth0");
    ip("address add 192.0.2.1/32 dev eth1");
    ip("address add fe80::1/64 dev eth0 nodad");
    ip("address add fe80::1/64 dev eth1 nodad");
    ip("link set eth0 up");
    ip("link set eth1 up");
}

/// Runs checks beside these interfaces, in a child process.
void runBesideInterfaces(std::function<void()> const& checks)
{
    auto const result = TestSupport::runInChild(
        [&checks]
        {
            if (!enterEmptyNetwork())
            {
                return refused;
            }
            makeInterfaces();
            checks();
            return testing::Test::HasFailure() ? 1 : 0;
        });
    if (result.exitCode == refused)
    {
        GTEST_SKIP() << "not allowed to make a network namespace: " << result.output;
    }
    EXPECT_EQ(result.exitCode, 0) << result.output;
}

/// The interfaces with the address, in the order of the system's list.
std::vector<std::string> interfacesWith(IpAddress const& address)
{
    ifaddrs* list = nullptr;
    if (getifaddrs(&list) != 0)
    {
        throw std::runtime_error("no interfaces");
    }
    std::vector<std::string> names;
    for (auto const* entry = list; entry != nullptr; entry = entry->ifa_next)
    {
        if (entry->ifa_addr != nullptr && entry->ifa_addr->sa_family == address.sockaddr()->sa_family &&
            IpAddress(entry->ifa_addr) == address)
        {
            names.emplace_back(entry->ifa_name);
        }
    }
    freeifaddrs(list);
    return names;
}

std::vector<std::string> interfacesOfThisProcess()
{
    std::vector<std::string> names;
    auto* const all = if_nameindex();
    for (auto const* entry = all; entry->if_index != 0; ++entry)
    {
        names.emplace_back(entry->if_name);
    }
    if_freenameindex(all);
    return names;
}

class RouteKernelTest : public testing::Test
{
protected:
    ~RouteKernelTest() override { EXPECT_EQ(interfacesOfThisProcess(), interfacesBefore); }

    std::vector<std::string> const interfacesBefore = interfacesOfThisProcess();
    LogCapture log;
};

TEST_F(RouteKernelTest, LoopbackIsReachedFromItselfAndEachLookUpCostsADescriptor)
{
    auto const before = openDescriptors();

    EXPECT_EQ(Ip::internalLocalIpForRemote("127.0.0.1"), "127.0.0.1");
    EXPECT_EQ(openDescriptors(), before + 1);
    EXPECT_EQ(Ip::getLocalIpForRemote("127.0.0.1", 0), "127.0.0.1");
    EXPECT_EQ(Ip::getLocalIpForRemote("127.0.0.1", 5), "127.0.0.1");
    EXPECT_EQ(Ip::internalLocalIpForRemote("::ffff:127.0.0.1"), "127.0.0.1"); // the resolver's doing
    EXPECT_EQ(openDescriptors(), before + 4);
}

TEST_F(RouteKernelTest, LookUpThatFailsCostsNoDescriptor)
{
    auto const before = openDescriptors();

    EXPECT_THAT(
        [] { Ip::internalLocalIpForRemote("::1"); },
        ThrowsMessage<std::runtime_error>(StrEq("getaddrinfo failed with Address family for hostname not supported")));
    EXPECT_THAT([] { Ip::internalLocalIpForRemote("255.255.255.255"); }, // a socket must ask for broadcasts first
                ThrowsMessage<std::runtime_error>(StrEq("could not resolve IP or hostname")));

    EXPECT_EQ(openDescriptors(), before);
}

TEST_F(RouteKernelTest, LocalAddressIsThatOfTheRoute)
{
    runBesideInterfaces(
        []
        {
            EXPECT_EQ(Ip::internalLocalIpForRemote("192.0.2.200"), "192.0.2.1");
            EXPECT_EQ(Ip::internalLocalIpForRemote("198.51.100.200"), "198.51.100.1");
            EXPECT_EQ(Ip::getLocalIpForRemote("198.51.100.200", 5), "198.51.100.1");

            auto const before = openDescriptors();
            EXPECT_THAT([] { Ip::internalLocalIpForRemote("203.0.113.1"); },
                        ThrowsMessage<std::runtime_error>(StrEq("could not resolve IP or hostname")));
            EXPECT_EQ(openDescriptors(), before);
        });
}

TEST_F(RouteKernelTest, InterfaceIsTheLastOneWithTheAddress)
{
    runBesideInterfaces(
        []
        {
            EXPECT_EQ(Ip::networkIfcNameForIp(IpAddress::fromString("127.0.0.1")), "lo");
            EXPECT_EQ(Ip::networkIfcNameForIp(IpAddress::fromString("::1")), "lo");
            EXPECT_EQ(Ip::networkIfcNameForIp(IpAddress::fromString("198.51.100.1")), "eth0");
            for (char const* const shared : {"192.0.2.1", "fe80::1"})
            {
                auto const address = IpAddress::fromString(shared);
                auto const names = interfacesWith(address);
                ASSERT_THAT(names, testing::UnorderedElementsAre("eth0", "eth1"));
                EXPECT_EQ(Ip::networkIfcNameForIp(address), names.back());
            }
        });
}

TEST_F(RouteKernelTest, AddressOfNoInterfaceIsNotFound)
{
    auto const line =
        isLine(Severity::Error, "", "Could not find any network interface with IP address 192.0.2.77 assigned");
    log.expect(line);

    EXPECT_THAT([] { Ip::networkIfcNameForIp(IpAddress::fromString("192.0.2.77")); },
                ThrowsMessage<std::invalid_argument>(StrEq("No network interface with expected IP address found.")));

    EXPECT_THAT(log.lines(), ElementsAre(line));
}

TEST_F(RouteKernelTest, ScopeNamesAnInterfaceAndTakesNoPartInAnythingElse)
{
    runBesideInterfaces(
        []
        {
            auto const first = IpAddress::fromString("fe80::1%eth0");
            auto const second = IpAddress::fromString("fe80::1%eth1");

            EXPECT_EQ(first.string(), "fe80::1");
            EXPECT_EQ(first.sockaddr_in6()->sin6_scope_id, if_nametoindex("eth0"));
            EXPECT_NE(first.sockaddr_in6()->sin6_scope_id, second.sockaddr_in6()->sin6_scope_id);
            EXPECT_TRUE(first == second);
            EXPECT_TRUE(first == IpAddress::fromString("fe80::1"));
            EXPECT_EQ(Ip::networkIfcNameForIp(first), Ip::networkIfcNameForIp(second));
        });
}

}

}
