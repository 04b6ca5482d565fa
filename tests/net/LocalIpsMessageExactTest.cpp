// The hazards of the exact build in what it makes of a received buffer.

#include <utils/LocalIps.h>

#include "net/MessageFixture.h"

#include <gmock/gmock.h>

#include <cstddef>
#include <vector>

namespace Halden::Tavro::Utils
{

namespace
{

using Log::Severity;
using testing::ElementsAre;
using namespace TestSupport;

using LocalIpsMessageExactTest = MessageFixture;

// kept: what services on devices without IPv6 see
TEST_F(LocalIpsMessageExactTest, MessageWithoutLocalAttributeIsNoAddress)
{
    expectNoAddressIn({
        addedWithoutLocal("fe80::1"),
        v4Message(attribute(IFA_ADDRESS, addressBytes("10.0.0.1"))),
        addressMessage(RTM_NEWADDR, AF_PACKET, attribute(IFA_ADDRESS, "123456")),
    });
}

// kept: no message is left out
TEST_F(LocalIpsMessageExactTest, FailingMessageIsHandledAgainUntilItNoLongerFails)
{
    expect(Severity::Error, noAddress);
    expect(Severity::Error, "IFA message contains no RTA of type IFA_ADDRESS");
    auto const first = added("10.0.0.1");
    Buffer buffer(first + addedWithoutLocal("fd00::1") + added("10.0.0.2"));
    int failures = 0;
    std::vector<LogLine> sinceTheFirst;
    capture.onLine(
        [&](LogLine const& each)
        {
            if (each.text == noAddress && ++failures == 100)
            {
                buffer.overwrite(first.size(), added("fd00::1"));
            }
        });

    sut.processAllNetlinkMessages(buffer.messages(), static_cast<int>(2 * first.size() + added("fd00::1").size()));

    EXPECT_EQ(failures, 100);
    EXPECT_THAT(addressesOf(sut), ElementsAre("10.0.0.1", "fd00::1", "10.0.0.2"));
    auto lines = capture.lines();
    ASSERT_EQ(lines.size(), 2U + 2U * 100U + 4U); // nothing is handled between two tries
    lines.erase(lines.begin(), lines.begin() + 2);
    lines.resize(200);
    for (std::size_t i = 0; i < lines.size(); i += 2)
    {
        EXPECT_EQ(lines[i], line(Severity::Error, "IFA message contains no RTA of type IFA_ADDRESS"));
        EXPECT_EQ(lines[i + 1], line(Severity::Error, noAddress));
    }
}

// kept: it ends the receiver thread, and with it the process
TEST_F(LocalIpsMessageExactTest, WhatIsNoStandardExceptionPassesThrough)
{
    onNewAddress = [] { throw 5; };

    EXPECT_THROW(handle(added("10.0.0.1")), int);

    EXPECT_THAT(addressesOf(sut), ElementsAre("10.0.0.1"));
}

}

}
