// What the monitor makes of a received buffer.

#include <utils/LocalIps.h>

#include "net/MessageFixture.h"
#include "support/Fenced.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <future>
#include <limits>
#include <stdexcept>
#include <string>
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
using namespace std::chrono_literals;

using LocalIpsMessageTest = MessageFixture;

TEST_F(LocalIpsMessageTest, EachFamilyIsTakenFromItsLocalAttribute)
{
    EXPECT_EQ(addressIn(added("10.1.2.3")), "10.1.2.3");
    EXPECT_EQ(addressIn(added("fd00::1:2")), "fd00::1:2");

    EXPECT_THAT(capture.lines(), ElementsAre(line(Severity::Trace, "nlToIpAddress: got IPv4"),
                                             line(Severity::Trace, "nlToIpAddress: got IPv6")));
}

TEST_F(LocalIpsMessageTest, ChangesAreLoggedWithoutTheLockOfTheList)
{
    int asked = 0;
    capture.onLine(
        [&](LogLine const& each)
        {
            if (each.severity == Severity::Info)
            {
                sut.addresses(); // would wait for good
                ++asked;
            }
        });

    handle(added("10.0.0.1") + deleted("10.0.0.1"));
    capture.onLine(nullptr);

    EXPECT_EQ(asked, 2);
}

TEST_F(LocalIpsMessageTest, LastLocalAttributeWins)
{
    EXPECT_EQ(addressIn(v4Message(local("10.0.0.1") + attribute(IFA_LABEL, "lo") + local("10.0.0.2"))), "10.0.0.2");
}

TEST_F(LocalIpsMessageTest, OtherAttributesAreNotRead)
{
    auto const peer = attribute(IFA_ADDRESS, addressBytes("10.0.0.9"));

    EXPECT_EQ(addressIn(v4Message(peer + local("10.0.0.1") + peer + attribute(IFA_LABEL, "e") + peer)), "10.0.0.1");
    EXPECT_EQ(addressIn(v4Message(local("10.0.0.1") + attribute(IFA_LOCAL | NLA_F_NESTED, addressBytes("10.0.0.2")))),
              "10.0.0.1");
}

TEST_F(LocalIpsMessageTest, AttributesEndWithTheFirstOfImpossibleLength)
{
    auto const bytes = addressBytes("10.0.0.2");
    for (std::uint16_t const length : std::vector<std::uint16_t>{0, 3, 9, 400, 65535})
    {
        EXPECT_EQ(addressIn(v4Message(local("10.0.0.1") + attribute(IFA_LOCAL, bytes, length))), "10.0.0.1") << length;
    }
}

// kept: the line names IFA_ADDRESS, though IFA_LOCAL is missing; what reads the log looks for it
TEST_F(LocalIpsMessageTest, MessageWithoutAnAddressIsRefused)
{
    expectNoAddressIn({
        v4Message(""),
        v4Message(attribute(IFA_LABEL, "eth0")),
        v4Message(attribute(IFA_LOCAL, addressBytes("10.0.0.1"), 3)),
        v4Message(attribute(IFA_LOCAL, addressBytes("10.0.0.1"), 9)),
        v4Message(attribute(IFA_ADDRESS, addressBytes("10.0.0.1"), 9)),
    });
}

TEST_F(LocalIpsMessageTest, NothingIsReadBehindAMessageThatEndsBeforeItsAttributes)
{
    expect(Severity::Error, "IFA message contains no RTA of type IFA_ADDRESS");
    auto const whole = added("10.0.0.1");
    for (std::uint32_t length = sizeof(nlmsghdr); length < whole.size(); ++length)
    {
        auto const cut =
            (bytesOf(nlmsghdr{length, RTM_NEWADDR, 0, 0, 0}) + whole.substr(sizeof(nlmsghdr))).substr(0, length);

        EXPECT_THROW(addressIn(cut), std::invalid_argument) << length;
    }
}

TEST_F(LocalIpsMessageTest, LocalAddressOfAnotherFamilyIsRefused)
{
    std::string const text = "ifaToSockaddr, got an invalid ifa_family 17";
    expect(Severity::Error, text);

    EXPECT_THAT([&] { addressIn(addressMessage(RTM_NEWADDR, AF_PACKET, attribute(IFA_LOCAL, "123456"))); },
                ThrowsMessage<std::invalid_argument>(StrEq("Unknown address family")));

    EXPECT_THAT(capture.lines(), ElementsAre(line(Severity::Error, text)));
}

TEST_F(LocalIpsMessageTest, PayloadBeyondTheAddressIsNotUsedAndNeverWrittenPastTheStorage)
{
    for (std::size_t const size : {5U, 16U, 120U, 121U, 124U, 125U, 128U, 4000U, 65531U})
    {
        auto const payload = addressBytes("10.0.0.1") + std::string(size - 4, 'x');
        EXPECT_EQ(addressIn(v4Message(attribute(IFA_LOCAL, payload))), "10.0.0.1") << size;
    }
    for (std::size_t const size : {17U, 120U, 121U, 128U, 4000U, 65531U})
    {
        auto const payload = addressBytes("fd00::1") + std::string(size - 16, 'x');
        EXPECT_EQ(addressIn(addressMessage(RTM_NEWADDR, AF_INET6, attribute(IFA_LOCAL, payload))), "fd00::1") << size;
    }
}

TEST_F(LocalIpsMessageTest, ShortPayloadLeavesTheRestOfTheStorageAsItIs)
{
    EXPECT_EQ(addressIn(v4Message(attribute(IFA_LOCAL, "\x0a\x01"))), "10.1.0.0");
    EXPECT_EQ(addressIn(v4Message(attribute(IFA_LOCAL, ""))), "0.0.0.0");
    EXPECT_EQ(addressIn(v4Message(local("10.0.0.1") + attribute(IFA_LOCAL, "\x0b\x02"))), "11.2.0.1");
    EXPECT_EQ(addressIn(addressMessage(RTM_NEWADDR, AF_INET6, local("fd00::1:2") + attribute(IFA_LOCAL, "\xfc\x01"))),
              "fc01::1:2");
}

TEST_F(LocalIpsMessageTest, LastAttributeNeedsNoPadding)
{
    auto const body = bytesOf(ifaddrmsg{AF_INET, 24, 0, 0, 1}) + attribute(IFA_LOCAL, "\x0a\x01\x02");
    auto const length = static_cast<std::uint32_t>(sizeof(nlmsghdr) + body.size() - 1);

    EXPECT_EQ(addressIn(message(RTM_NEWADDR, body, length).substr(0, length)), "10.1.2.0");
}

// kept: the kernel sends no such payload, and is trusted
TEST_F(LocalIpsMessageTest, PayloadBeyondTheAddressIsKeptBehindIt)
{
    Buffer const v4(v4Message(attribute(IFA_LOCAL, addressBytes("10.0.0.1") + "12345678")));
    Buffer const v6(addressMessage(RTM_NEWADDR, AF_INET6, attribute(IFA_LOCAL, addressBytes("fd00::1") + "1234")));

    auto const shorter = sut.nlToIpAddress(v4.messages());
    auto const longer = sut.nlToIpAddress(v6.messages());

    EXPECT_EQ(std::memcmp(shorter.sockaddr_in()->sin_zero, "12345678", 8), 0);
    EXPECT_EQ(std::memcmp(&longer.sockaddr_in6()->sin6_scope_id, "1234", 4), 0);
}

TEST_F(LocalIpsMessageTest, EveryTruncationAtEveryAlignmentGivesWhatIsWhole)
{
    auto const first = v4Message(local("10.0.0.1") + attribute(IFA_LABEL, "eth0"));
    auto const second =
        addressMessage(RTM_NEWADDR, AF_INET6, attribute(IFA_CACHEINFO, "0123456789012345") + local("fd00::1"));
    auto const both = first + second;
    for (std::size_t misalignment = 0; misalignment < 8; ++misalignment)
    {
        for (std::size_t length = 0; length <= both.size(); ++length)
        {
            listAfter("");
            std::vector<std::string> expected;
            if (length >= first.size())
            {
                expected.emplace_back("10.0.0.1");
            }
            if (length == both.size())
            {
                expected.emplace_back("fd00::1");
            }

            handle(both.substr(0, length), misalignment);

            ASSERT_EQ(addressesOf(sut), expected) << "length " << length << ", misalignment " << misalignment;
        }
    }
}

TEST_F(LocalIpsMessageTest, NothingIsReadBehindTheBuffer)
{
    auto const both = added("10.0.0.1") + added("fd00::1");
    for (std::size_t length = 0; length <= both.size(); ++length)
    {
        Fenced const buffer(both.data(), length);
        listAfter("");

        sut.processAllNetlinkMessages(buffer.as<nlmsghdr>(), static_cast<int>(length));
    }

    EXPECT_THAT(addressesOf(sut), ElementsAre("10.0.0.1", "fd00::1"));
}

TEST_F(LocalIpsMessageTest, MessagesNeedNoPaddingAtTheEnd)
{
    auto const odd = bytesOf(nlmsghdr{35, RTM_NEWADDR, 0, 0, 0}) + bytesOf(ifaddrmsg{AF_INET, 24, 0, 0, 1}) +
                     local("10.0.0.1") + "\0\0\0";
    auto const unpadded = odd + std::string(3, '\0');

    EXPECT_THAT(listAfter(unpadded), ElementsAre("10.0.0.1"));
    EXPECT_THAT(listAfter(unpadded + std::string(1, '\0') + added("10.0.0.2")), ElementsAre("10.0.0.1", "10.0.0.2"));
}

TEST_F(LocalIpsMessageTest, OtherMessagesAreSkipped)
{
    std::string const body(20, '\1');
    // no-op, error, overrun, links, addresses' neighbours, routes
    for (std::uint16_t const type : std::vector<std::uint16_t>{0, 1, 2, 4, 16, 19, 22, 24, 65535})
    {
        EXPECT_THAT(listAfter(message(type, body) + added("10.0.0.1")), ElementsAre("10.0.0.1")) << type;
        EXPECT_THAT(listAfter(message(type, "") + added("10.0.0.1")), ElementsAre("10.0.0.1")) << type;
    }
}

TEST_F(LocalIpsMessageTest, WalkEndsWithADoneMessage)
{
    EXPECT_THAT(listAfter(added("10.0.0.1") + message(NLMSG_DONE, "0123") + added("10.0.0.2")),
                ElementsAre("10.0.0.1"));
}

TEST_F(LocalIpsMessageTest, WalkEndsWithAMessageOfImpossibleLength)
{
    auto const rest = bytesOf(ifaddrmsg{AF_INET, 24, 0, 0, 1}) + local("10.0.0.2");
    for (std::uint32_t const length : {0U, 15U, 33U, 4096U, 0x7fffffffU, 0x80000000U, 0xffffffffU})
    {
        EXPECT_THAT(listAfter(added("10.0.0.1") + message(RTM_NEWADDR, rest, length)), ElementsAre("10.0.0.1"))
            << length;
    }
}

TEST_F(LocalIpsMessageTest, LastMessageMayBeABareHeader)
{
    expect(Severity::Error, "IFA message contains no RTA of type IFA_ADDRESS");
    expect(Severity::Error, noAddress);
    auto const first = added("10.0.0.1");
    Buffer buffer(first + message(RTM_NEWADDR, ""));
    int failures = 0;
    capture.onLine(
        [&](LogLine const& each)
        {
            if (each.text == noAddress)
            {
                ++failures;
                buffer.overwrite(first.size(), message(NLMSG_NOOP, "")); // ends the exact build's tries
            }
        });

    sut.processAllNetlinkMessages(buffer.messages(), static_cast<int>(first.size() + sizeof(nlmsghdr)));

    EXPECT_EQ(failures, 1);
}

TEST_F(LocalIpsMessageTest, LengthBelowAHeaderIsIgnored)
{
    Buffer const buffer(added("10.0.0.1"));
    for (int const length : {15, 1, 0, -1, std::numeric_limits<int>::min()})
    {
        sut.processAllNetlinkMessages(buffer.messages(), length);
    }

    EXPECT_THAT(addressesOf(sut), IsEmpty());
}

TEST_F(LocalIpsMessageTest, KnownAddressIsNotAddedAgain)
{
    std::string const warning = "handleNewAddress(10.0.0.1): IP is already in our list, doing nothing";
    expect(Severity::Warning, warning);
    int reports = 0;
    onNewAddress = [&reports] { ++reports; };

    sut.handleNewAddress(IpAddress::fromString("10.0.0.1"));
    sut.handleNewAddress(IpAddress::fromString("10.0.0.1"));

    EXPECT_EQ(reports, 1);
    EXPECT_THAT(addressesOf(sut), ElementsAre("10.0.0.1"));
    EXPECT_THAT(capture.lines(),
                ElementsAre(line(Severity::Info, "new IP address: 10.0.0.1"),
                            line(Severity::Info, "new IP address: 10.0.0.1"), line(Severity::Warning, warning)));
}

TEST_F(LocalIpsMessageTest, LosingAnUnknownAddressChangesNothing)
{
    std::string const warning = "handleLostAddress(10.0.0.1): IP is NOT in our list, doing nothing";
    expect(Severity::Warning, warning);

    sut.handleLostAddress(IpAddress::fromString("10.0.0.1"));

    EXPECT_THAT(capture.lines(),
                ElementsAre(line(Severity::Info, "lost IP address: 10.0.0.1"), line(Severity::Warning, warning)));
}

TEST_F(LocalIpsMessageTest, LosingAnAddressKeepsTheOrderOfTheOthers)
{
    handle(added("10.0.0.1") + added("10.0.0.2") + added("fd00::1") + added("10.0.0.3"));

    handle(deleted("10.0.0.2"));

    EXPECT_THAT(addressesOf(sut), ElementsAre("10.0.0.1", "fd00::1", "10.0.0.3"));
}

TEST_F(LocalIpsMessageTest, ListIsReadUnderTheLockUnderWhichAnEventIsFoundUnwanted)
{
    expect(Severity::Warning, "handleNewAddress(10.0.0.1): IP is already in our list, doing nothing");
    expect(Severity::Warning, "handleLostAddress(10.0.0.2): IP is NOT in our list, doing nothing");
    handle(added("10.0.0.1"));
    std::vector<std::future<std::vector<std::string>>> lists;
    capture.onLine(
        [&](LogLine const& each)
        {
            if (each.severity == Severity::Warning)
            {
                lists.push_back(std::async(std::launch::async, [this] { return addressesOf(sut); }));
                EXPECT_EQ(lists.back().wait_for(100ms), std::future_status::timeout) << each.text;
            }
        });

    handle(added("10.0.0.1") + deleted("10.0.0.2"));
    capture.onLine(nullptr);

    ASSERT_THAT(lists, SizeIs(2));
    EXPECT_THAT(lists[0].get(), ElementsAre("10.0.0.1"));
    EXPECT_THAT(lists[1].get(), ElementsAre("10.0.0.1"));
}

}

}
