// The hazards of the exact build that leave the process running.

#include <utils/LocalIps.h>

#include "net/LocalIpsFixture.h"

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
using namespace TestSupport;

using LocalIpsExactTest = LocalIpsFixture;

// kept: what services that construct the monitor once, for good, never notice
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

// kept: no event is left out; this one comes again, to a list that it has changed already
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

// kept: the log lines come in this order, and each says what has been done
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

}

}
