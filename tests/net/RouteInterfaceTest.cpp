// The interface that carries an address.

#include <utils/Route.h>

#include "net/SocketAddresses.h"
#include "support/CallDouble.h"
#include "support/LogCapture.h"

#include <gmock/gmock.h>

#include <ifaddrs.h>

#include <cerrno>
#include <cstddef>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace Halden::Tavro::Utils
{

namespace
{

using Log::Severity;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using testing::StrEq;
using testing::ThrowsMessage;
using namespace TestSupport;

CallDouble<int(ifaddrs**)> getifaddrsDouble{"getifaddrs"};
CallDouble<void(ifaddrs*)> freeifaddrsDouble{"freeifaddrs"};

}

extern "C"
{

    int getifaddrs(ifaddrs** list) noexcept
    {
        return getifaddrsDouble(list);
    }

    void freeifaddrs(ifaddrs* list) noexcept
    {
        freeifaddrsDouble(list);
    }
}

namespace
{

class RouteInterfaceTest : public testing::Test
{
protected:
    RouteInterfaceTest()
    {
        resetDoubles();
        freeifaddrsDouble.replace([this](ifaddrs* list)
                                  { events.push_back(std::string("freeifaddrs ") + list->ifa_name); });
    }

    ~RouteInterfaceTest() override { resetDoubles(); }

    static void resetDoubles()
    {
        getifaddrsDouble.reset();
        freeifaddrsDouble.reset();
    }

    /// Interfaces with their addresses, in this order; a family of AF_UNSPEC stands for none.
    void letSystemHave(std::vector<std::pair<std::string, sockaddr_storage>> const& found)
    {
        interfaces = found;
        interfaceList.assign(found.size(), {});
        for (std::size_t i = 0; i < found.size(); ++i)
        {
            auto& [name, address] = interfaces[i];
            interfaceList[i].ifa_name = name.data();
            interfaceList[i].ifa_addr =
                address.ss_family == AF_UNSPEC ? nullptr : reinterpret_cast<sockaddr*>(&address);
            interfaceList[i].ifa_next = i + 1 < found.size() ? &interfaceList[i + 1] : nullptr;
        }
        getifaddrsDouble.replace(
            [this](ifaddrs** list)
            {
                *list = interfaceList.empty() ? nullptr : interfaceList.data();
                return 0;
            });
    }

    void expectError(std::string const& expected) { log.expect(isLine(Severity::Error, "", expected)); }

    /// Writes down what is logged among the other events.
    void letLoggingBeAnEvent()
    {
        log.onLine([this](LogLine const& line) { events.push_back("log " + line.text); });
    }

    LogCapture log;
    std::vector<std::string> events; // calls, and lines if wanted, in their order
    std::vector<std::pair<std::string, sockaddr_storage>> interfaces;
    std::vector<ifaddrs> interfaceList;
};

TEST_F(RouteInterfaceTest, InterfaceWithTheAddressIsFoundAndLoggedAfterTheListIsFreed)
{
    letSystemHave({{"lo", v4("127.0.0.1")}, {"eth0", v4("192.0.2.1")}, {"eth0", v6("fe80::1", 2)}});
    letLoggingBeAnEvent();

    EXPECT_EQ(Ip::networkIfcNameForIp(ip(v4("192.0.2.1"))), "eth0");

    EXPECT_THAT(events, ElementsAre("freeifaddrs lo", "log Found IP address 192.0.2.1 on network interface eth0"));
    EXPECT_THAT(log.lines(),
                ElementsAre(isLine(Severity::Debug, "", "Found IP address 192.0.2.1 on network interface eth0")));
}

// kept: an earlier one would be another interface than services get today
TEST_F(RouteInterfaceTest, LastInterfaceWithTheAddressWins)
{
    letSystemHave(
        {{"eth0", v4("192.0.2.1")}, {"eth1", v4("192.0.2.1")}, {"eth2", v4("192.0.2.1")}, {"eth3", v4("192.0.2.2")}});

    EXPECT_EQ(Ip::networkIfcNameForIp(ip(v4("192.0.2.1"))), "eth2");
}

TEST_F(RouteInterfaceTest, ScopeDoesNotTellInterfacesApart)
{
    letSystemHave({{"eth0", v6("fe80::1", 2)}, {"eth1", v6("fe80::1", 3)}});

    EXPECT_EQ(Ip::networkIfcNameForIp(ip(v6("fe80::1", 2))), "eth1");
}

TEST_F(RouteInterfaceTest, EntriesWithoutAnIpAddressAreSkipped)
{
    auto packet = v4("192.0.2.1");
    packet.ss_family = AF_PACKET;
    letSystemHave({{"ppp0", {}}, {"eth0", packet}, {"eth1", v4("192.0.2.1")}, {"ppp1", {}}, {"eth2", packet}});

    EXPECT_EQ(Ip::networkIfcNameForIp(ip(v4("192.0.2.1"))), "eth1");

    EXPECT_THAT(log.lines(), SizeIs(1)); // none of them is an address that is refused
}

TEST_F(RouteInterfaceTest, AddressThatNoInterfaceCarriesIsLoggedAndThrows)
{
    letSystemHave({{"lo", v4("127.0.0.1")}, {"lo", v6("::1")}});
    std::string const line = "Could not find any network interface with IP address 192.0.2.1 assigned";
    expectError(line);
    letLoggingBeAnEvent();

    EXPECT_THAT([] { Ip::networkIfcNameForIp(ip(v4("192.0.2.1"))); },
                ThrowsMessage<std::invalid_argument>(StrEq("No network interface with expected IP address found.")));

    EXPECT_THAT(events, ElementsAre("freeifaddrs lo", "log " + line));
    EXPECT_THAT(log.lines(), ElementsAre(isLine(Severity::Error, "", line)));
}

TEST_F(RouteInterfaceTest, NoInterfaceAtAllIsNoneWithTheAddress)
{
    letSystemHave({});
    expectError("Could not find any network interface with IP address ::1 assigned");

    EXPECT_THAT([] { Ip::networkIfcNameForIp(ip(v6("::1"))); },
                ThrowsMessage<std::invalid_argument>(StrEq("No network interface with expected IP address found.")));
}

TEST_F(RouteInterfaceTest, AddressThatCannotBePrintedThrowsWhatPrintingThrows)
{
    letSystemHave({{"lo", v4("127.0.0.1")}});
    auto const address = ip(v4("127.0.0.1"));
    const_cast<sockaddr*>(address.sockaddr())->sa_family = AF_UNIX;
    expectError("Neither IPv4 nor IPv6: cannot convert to string");

    EXPECT_THAT([&] { Ip::networkIfcNameForIp(address); },
                ThrowsMessage<std::runtime_error>(
                    StrEq("IP address is neither v4 nor v6: don't now how to convert it to string")));

    EXPECT_THAT(events, ElementsAre("freeifaddrs lo"));
}

TEST_F(RouteInterfaceTest, FailureToListTheInterfacesIsLoggedWithItsErrnoAndThrown)
{
    getifaddrsDouble.failCall(1, -1, ENOBUFS);
    log.onLine([](LogLine const&) { errno = 0; });
    std::string const line = "networkIfcNameForIp: getifaddrs failed with 105(No buffer space available)";
    expectError(line);

    EXPECT_THAT([] { Ip::networkIfcNameForIp(ip(v4("192.0.2.1"))); },
                ThrowsMessage<std::runtime_error>(StrEq("Failed to get details about IP address")));

    EXPECT_THAT(log.lines(), ElementsAre(isLine(Severity::Error, "", line)));
    EXPECT_THAT(events, IsEmpty());
}

}

}
