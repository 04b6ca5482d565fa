// Asks the real kernel.

#include <utils/Route.h>

#include "net/RouteKernelFixture.h"
#include "support/LogCapture.h"
#include "support/Resources.h"

#include <gmock/gmock.h>

#include <ifaddrs.h>
#include <net/if.h>

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
using namespace TestSupport;

using RouteKernelTest = RouteKernelFixture;

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

TEST_F(RouteKernelTest, LoopbackIsReachedFromItself)
{
    runBesideInterfaces(
        []
        {
            EXPECT_EQ(Ip::internalLocalIpForRemote("127.0.0.1"), "127.0.0.1");
            EXPECT_EQ(Ip::getLocalIpForRemote("127.0.0.1", 0), "127.0.0.1");
            EXPECT_EQ(Ip::getLocalIpForRemote("127.0.0.1", 5), "127.0.0.1");
            EXPECT_EQ(Ip::internalLocalIpForRemote("::ffff:127.0.0.1"), "127.0.0.1"); // the resolver's doing
        });
}

TEST_F(RouteKernelTest, LookUpThatFailsCostsNoDescriptor)
{
    runBesideInterfaces(
        []
        {
            auto const before = openDescriptors();

            EXPECT_THAT([] { Ip::internalLocalIpForRemote("::1"); },
                        ThrowsMessage<std::runtime_error>(
                            StrEq("getaddrinfo failed with Address family for hostname not supported")));
            EXPECT_THAT([]
                        { Ip::internalLocalIpForRemote("255.255.255.255"); }, // a socket must ask for broadcasts first
                        ThrowsMessage<std::runtime_error>(StrEq("could not resolve IP or hostname")));

            EXPECT_EQ(openDescriptors(), before);
        });
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
