// The hazards of the exact build that leave the process running.

#include <utils/LocalIps.h>

#include "net/MessageFixture.h"

#include <gmock/gmock.h>

#include <cerrno>
#include <cstddef>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace Halden::Tavro::Utils
{

namespace
{

using Log::Severity;
using testing::Contains;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StrEq;
using testing::ThrowsMessage;
using namespace TestSupport;

using LocalIpsExactTest = LocalIpsFixture;
using LocalIpsMessageExactTest = MessageFixture;

// kept: services construct the monitor once, for good
TEST_F(LocalIpsExactTest, ConstructionThatFailsLeavesTheDescriptorOpen)
{
    for (std::string const function : {"bind", "fcntl"})
    {
        kernel.fail(function, EACCES);
        capture.expect(isLine(Severity::Error, "LocalIps", HasSubstr("Failed to")));

        EXPECT_THROW(LocalIps({}, {}, {}), std::runtime_error);

        EXPECT_THAT(kernel.ownerCalls(), Not(Contains("close"))) << function;
        kernel.fail(function, 0);
    }
}

// kept: as above
TEST_F(LocalIpsExactTest, ListOfTheStartIsNeverFreed)
{
    kernel.setAddresses({"10.0.0.1"});

    std::make_unique<LocalIps>(nullptr, nullptr, nullptr).reset();

    EXPECT_EQ(kernel.listsInUse(), 1);
}

// kept: the point at which the walk resumes
TEST_F(LocalIpsExactTest, ExceptionOfAnAddressCallbackLetsTheEventBeHandledAgain)
{
    auto const refuse = [](IpAddress const& /*ip*/) { throw std::logic_error("no use"); };
    LocalIps sut(refuse, refuse, {});
    std::string const ignored = "processAllNetlinkMessages: ignoring exception no use";
    std::string const known = "handleNewAddress(10.0.0.1): IP is already in our list, doing nothing";
    std::string const unknown = "handleLostAddress(10.0.0.1): IP is NOT in our list, doing nothing";
    expect(Severity::Error, ignored);
    expect(Severity::Warning, known);
    expect(Severity::Warning, unknown);

    kernel.send(added("10.0.0.1"));
    ASSERT_TRUE(kernel.waitUntilIdle());
    EXPECT_THAT(addressesOf(sut), ElementsAre("10.0.0.1"));
    kernel.send(deleted("10.0.0.1"));

    ASSERT_TRUE(kernel.waitUntilIdle());
    EXPECT_THAT(addressesOf(sut), IsEmpty());
    auto const once = [&](char const* what, std::string const& warning)
    {
        return std::vector{line(Severity::Trace, "receiverThread: recv returned 32"),
                           line(Severity::Trace, "nlToIpAddress: got IPv4"),
                           line(Severity::Info, what),
                           line(Severity::Error, ignored),
                           line(Severity::Trace, "nlToIpAddress: got IPv4"),
                           line(Severity::Info, what),
                           line(Severity::Warning, warning)};
    };
    auto expected = std::vector{line(Severity::Info, "+receiverThread")};
    for (auto const& each : {once("new IP address: 10.0.0.1", known), once("lost IP address: 10.0.0.1", unknown)})
    {
        expected.insert(expected.end(), each.begin(), each.end());
    }
    EXPECT_THAT(capture.lines(), ElementsAreArray(expected));
}

// kept: who is told of the error constructs the monitor anew
TEST_F(LocalIpsExactTest, ListIsNotReadAgainAfterLostEvents)
{
    expect(Severity::Error, lostEvents);
    kernel.setAddresses({"10.0.0.1"});
    LocalIps sut({}, {}, {});
    kernel.setAddresses({"10.0.0.2"});

    kernel.add(recvFails(ENOBUFS));
    kernel.add(pollGives(0));

    ASSERT_TRUE(kernel.waitUntilIdle());
    EXPECT_THAT(addressesOf(sut), ElementsAre("10.0.0.1"));
    EXPECT_THAT(kernel.receiverCalls(), ElementsAre(onePoll, oneRecv, onePoll));
}

// kept: the order of the destructor's steps
TEST_F(LocalIpsExactTest, DestructorClosesTheSocketBeforeTheReceiverThreadEnds)
{
    auto sut = std::make_unique<LocalIps>(nullptr, nullptr, nullptr);
    ASSERT_TRUE(kernel.waitUntilIdle());
    auto const before = kernel.ownerCalls().size();
    noteOwnersLines();

    sut.reset();

    auto calls = kernel.ownerCalls();
    calls.erase(calls.begin(), calls.begin() + static_cast<std::ptrdiff_t>(before));
    EXPECT_THAT(calls, ElementsAre("+LocalIps destructor", "close", "socket closed",
                                   "waiting for receiver thread to stop...", "receiver thread stopped"));
}

// kept: as above
TEST_F(LocalIpsExactTest, ErrorsOfTheClosedSocketAreLoggedButNotReported)
{
    capture.expect(isLine(Severity::Error, "LocalIps", HasSubstr("failed")));
    int reports = 0;
    auto sut = std::make_unique<LocalIps>(nullptr, nullptr, [&reports] { ++reports; });
    auto pass = pollGives(-1, EBADF);
    pass.recvError = EBADF;
    pass.atEnd = true;
    kernel.add(pass);
    ASSERT_TRUE(kernel.waitUntilIdle());

    sut.reset();

    EXPECT_EQ(reports, 0);
    EXPECT_THAT(kernel.receiverCalls(), ElementsAre(onePoll, oneRecv));
    EXPECT_THAT(linesWith("failed"),
                ElementsAre(line(Severity::Error, "poll failed with 9(Bad file descriptor)"),
                            line(Severity::Error, "receiverThread: recv on NETLINK_ROUTE socket failed, errno 9 "
                                                  "(Bad file descriptor),")));
}

// kept: what services on devices without IPv6 see
TEST_F(LocalIpsMessageExactTest, MessageWithoutLocalAttributeIsNoAddress)
{
    std::string const text = "IFA message contains no RTA of type IFA_ADDRESS";
    expect(Severity::Error, text);
    std::vector<std::string> const messages{
        addedWithoutLocal("fe80::1"),
        v4Message(attribute(IFA_ADDRESS, addressBytes("10.0.0.1"))),
        addressMessage(RTM_NEWADDR, AF_PACKET, attribute(IFA_ADDRESS, "123456")),
    };
    for (auto const& each : messages)
    {
        capture.clear();
        EXPECT_THAT([&] { addressIn(each); },
                    ThrowsMessage<std::invalid_argument>(StrEq("IFA message contains no IP address")));
        EXPECT_THAT(capture.lines(), ElementsAre(line(Severity::Error, text)));
    }
}

// kept: the point at which the walk resumes
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
