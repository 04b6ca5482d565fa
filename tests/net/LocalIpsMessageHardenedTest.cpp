// What the hardened build makes of a received buffer.

#include <utils/LocalIps.h>

#include "net/MessageFixture.h"

#include <gmock/gmock.h>

#include <cstdint>
#include <stdexcept>
#include <string>

namespace Halden::Tavro::Utils
{

namespace
{

using Log::Severity;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::StrEq;
using testing::ThrowsMessage;
using namespace TestSupport;

using LocalIpsMessageHardenedTest = MessageFixture;

std::string addressOnly(std::uint16_t type, std::string const& address)
{
    return addressMessage(type, AF_INET6, attribute(IFA_ADDRESS, addressBytes(address)));
}

TEST_F(LocalIpsMessageHardenedTest, AddressAttributeCountsWhereThereIsNoLocalOne)
{
    EXPECT_EQ(addressIn(addressOnly(RTM_NEWADDR, "fe80::1")), "fe80::1");
    EXPECT_EQ(addressIn(v4Message(attribute(IFA_ADDRESS, addressBytes("10.0.0.1")))), "10.0.0.1");

    EXPECT_THAT(capture.lines(), ElementsAre(line(Severity::Trace, "nlToIpAddress: got IPv6"),
                                             line(Severity::Trace, "nlToIpAddress: got IPv4")));
}

TEST_F(LocalIpsMessageHardenedTest, AddressAttributeBesideALocalOneIsThePeersAndDoesNotCount)
{
    auto const peer = attribute(IFA_ADDRESS, addressBytes("fd00::2"));

    EXPECT_EQ(addressIn(addressMessage(RTM_NEWADDR, AF_INET6, peer + local("fd00::1"))), "fd00::1");
    EXPECT_EQ(addressIn(addressMessage(RTM_NEWADDR, AF_INET6, local("fd00::1") + peer)), "fd00::1");
    EXPECT_EQ(linesWith("got IPv6").size(), 2U);
}

TEST_F(LocalIpsMessageHardenedTest, AddressAttributeOfAnotherFamilyIsRefused)
{
    expect(Severity::Error, "ifaToSockaddr, got an invalid ifa_family 17");

    EXPECT_THAT([&] { addressIn(addressMessage(RTM_NEWADDR, AF_PACKET, attribute(IFA_ADDRESS, "123456"))); },
                ThrowsMessage<std::invalid_argument>(StrEq("Unknown address family")));
}

TEST_F(LocalIpsMessageHardenedTest, AddressesWithoutLocalAttributeComeAndGoLikeOthers)
{
    capture.expect(isLine(Severity::Warning, "LocalIps", HasSubstr("IP is already in our list")));

    handle(addressOnly(RTM_NEWADDR, "fe80::1") + addressOnly(RTM_NEWADDR, "fe80::2") +
           addressOnly(RTM_NEWADDR, "fe80::1") + addressOnly(RTM_DELADDR, "fe80::1"));

    EXPECT_THAT(addressesOf(sut), ElementsAre("fe80::2"));
    EXPECT_EQ(linesWith("IP is already in our list").size(), 1U); // as the kernel reports a change of its lifetime
}

TEST_F(LocalIpsMessageHardenedTest, MessageThatCannotBeHandledIsLoggedOnceAndTheNextOneHandled)
{
    capture.onLine(nullptr);
    std::string const none = "IFA message contains no RTA of type IFA_ADDRESS";
    expect(Severity::Error, noAddress);
    expect(Severity::Error, none);

    handle(added("10.0.0.1") + message(RTM_NEWADDR, "") + v4Message("") + added("10.0.0.2"));

    EXPECT_THAT(addressesOf(sut), ElementsAre("10.0.0.1", "10.0.0.2"));
    EXPECT_THAT(linesWith("contains no"), ElementsAre(line(Severity::Error, none), line(Severity::Error, noAddress),
                                                      line(Severity::Error, none), line(Severity::Error, noAddress)));
}

}

}
