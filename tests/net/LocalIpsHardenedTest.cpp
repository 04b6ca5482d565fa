// What the hardened build does where the exact one hangs, leaks, crashes or loses track.

#include <utils/LocalIps.h>

#include "net/LocalIpsFixture.h"
#include "support/WaitFor.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <future>
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
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StrEq;
using testing::ThrowsMessage;
using namespace TestSupport;

using LocalIpsHardenedTest = LocalIpsFixture;

TEST_F(LocalIpsHardenedTest, StepThatFailsClosesTheDescriptor)
{
    for (std::string const function : {"bind", "fcntl"})
    {
        kernel.fail(function, EACCES);
        capture.expect(isLine(Severity::Error, "LocalIps", HasSubstr("Failed to")));

        EXPECT_THROW(LocalIps({}, {}, {}), std::runtime_error);

        EXPECT_EQ(kernel.ownerCalls().back(), "close") << function;
        kernel.fail(function, 0);
    }
}

TEST_F(LocalIpsHardenedTest, DescriptorThatWasNotOpenedIsNotClosed)
{
    kernel.fail("socket", EMFILE);
    capture.expect(isLine(Severity::Error, "LocalIps", HasSubstr("Couldn't open")));

    EXPECT_THROW(LocalIps({}, {}, {}), std::runtime_error);

    EXPECT_EQ(kernel.ownerCalls().size(), 1U);
}

TEST_F(LocalIpsHardenedTest, UnreadableAddressesReachTheCallerAfterTheReceiverThreadHasEnded)
{
    std::string const failed = "initialAddrList: getifaddrs failed with 12(Cannot allocate memory)";
    kernel.fail("getifaddrs", ENOMEM);
    expect(Severity::Error, failed);

    EXPECT_THAT([] { LocalIps({}, {}, {}); },
                ThrowsMessage<std::runtime_error>(StrEq("Failed to get initial list of IP addresses.")));

    EXPECT_THAT(linesWith("failed"), ElementsAre(line(Severity::Error, failed)));
    EXPECT_THAT(linesWith("-receiverThread"), ElementsAre(line(Severity::Info, "-receiverThread")));
    EXPECT_THAT(linesWith("destructor"), IsEmpty());
    EXPECT_EQ(kernel.ownerCalls().back(), "close");
}

TEST_F(LocalIpsHardenedTest, WhateverACallbackThrowsDuringConstructionReachesTheCaller)
{
    kernel.setAddresses({"10.0.0.1", "10.0.0.2"});

    EXPECT_THAT([] { LocalIps([](auto const& /*ip*/) { throw std::logic_error("no use"); }, {}, {}); },
                ThrowsMessage<std::logic_error>(StrEq("no use")));
    EXPECT_THROW(LocalIps([](auto const& /*ip*/) { throw 5; }, {}, {}), int);

    EXPECT_EQ(kernel.listsInUse(), 0);
    EXPECT_THAT(linesWith("-receiverThread"), testing::SizeIs(2));
    auto const calls = kernel.ownerCalls();
    EXPECT_EQ(std::count(calls.begin(), calls.end(), "close"), 2);
    EXPECT_EQ(calls.back(), "close");
}

TEST_F(LocalIpsHardenedTest, ListOfTheStartIsFreed)
{
    kernel.setAddresses({"10.0.0.1"});

    LocalIps const sut({}, {}, {});

    EXPECT_EQ(kernel.listsInUse(), 0);
}

TEST_F(LocalIpsHardenedTest, ExceptionOfAnAddressCallbackIsLoggedOnceAndTheNextEventHandled)
{
    std::string const ignored = "processAllNetlinkMessages: ignoring exception no use";
    expect(Severity::Error, ignored);
    auto const refuse = [](IpAddress const& /*ip*/) { throw std::logic_error("no use"); };
    LocalIps sut(refuse, refuse, {});
    kernel.setAddresses({"10.0.0.2"});

    kernel.send(added("10.0.0.1") + added("10.0.0.2") + deleted("10.0.0.1"));

    ASSERT_TRUE(kernel.waitUntilIdle());
    EXPECT_THAT(addressesOf(sut), ElementsAre("10.0.0.2"));
    EXPECT_THAT(linesWith("IP"), ElementsAre(line(Severity::Trace, "nlToIpAddress: got IPv4"),
                                             line(Severity::Info, "new IP address: 10.0.0.1"),
                                             line(Severity::Trace, "nlToIpAddress: got IPv4"),
                                             line(Severity::Info, "new IP address: 10.0.0.2"),
                                             line(Severity::Trace, "nlToIpAddress: got IPv4"),
                                             line(Severity::Info, "lost IP address: 10.0.0.1")));
    EXPECT_THAT(linesWith("ignoring"), testing::SizeIs(3));
}

TEST_F(LocalIpsHardenedTest, WhateverAnAddressCallbackThrowsIsLoggedAndTheNextEventHandled)
{
    expect(Severity::Error, "processAllNetlinkMessages: ignoring exception unknown exception");
    LocalIps sut([](auto const& /*ip*/) { throw 5; }, {}, {});
    kernel.setAddresses({"10.0.0.1", "10.0.0.2"});

    kernel.send(added("10.0.0.1") + added("10.0.0.2"));

    ASSERT_TRUE(kernel.waitUntilIdle());
    EXPECT_THAT(addressesOf(sut), ElementsAre("10.0.0.1", "10.0.0.2"));
    EXPECT_THAT(linesWith("ignoring"), testing::SizeIs(2));
}

TEST_F(LocalIpsHardenedTest, WhateverTheErrorCallbackThrowsEndsTheReceiverThreadButNotTheProcess)
{
    std::string const caught = "-receiverThread caught exception unknown exception";
    expect(Severity::Error, caught);
    capture.expect(isLine(Severity::Error, "LocalIps", HasSubstr("recv on NETLINK_ROUTE socket failed")));
    LocalIps const sut({}, {}, [] { throw 5; });

    kernel.add(recvFails(ENOMEM));

    EXPECT_TRUE(capture.waitFor(isLine(Severity::Info, "LocalIps", "-receiverThread")));
    EXPECT_THAT(linesWith(caught), ElementsAre(line(Severity::Error, caught)));
}

TEST_F(LocalIpsHardenedTest, ListIsReadAgainAfterLostEventsAndTheDifferencesReported)
{
    expect(Severity::Error, lostEvents);
    kernel.setAddresses({"10.0.0.1", "10.0.0.2", "10.0.0.3"});
    Reports reports;
    LocalIps sut(reports.as("+"), reports.as("-"), [&reports] { reports.add("error"); });
    kernel.setAddresses({"10.0.0.4", "10.0.0.2", "10.0.0.5", "10.0.0.4"}); // one of them on two interfaces
    capture.clear();

    kernel.add(recvFails(ENOBUFS));

    ASSERT_TRUE(kernel.waitUntilIdle());
    EXPECT_THAT(reports.all(), ElementsAre("+10.0.0.1", "+10.0.0.2", "+10.0.0.3", "error", "-10.0.0.1", "-10.0.0.3",
                                           "+10.0.0.4", "+10.0.0.5"));
    EXPECT_THAT(addressesOf(sut), ElementsAre("10.0.0.2", "10.0.0.4", "10.0.0.5"));
    EXPECT_THAT(linesWith("IP"), ElementsAre(line(Severity::Info, "lost IP address: 10.0.0.1"),
                                             line(Severity::Info, "lost IP address: 10.0.0.3"),
                                             line(Severity::Info, "new IP address: 10.0.0.4"),
                                             line(Severity::Info, "new IP address: 10.0.0.5")));
    EXPECT_EQ(kernel.listsInUse(), 0);
}

// Until the queue is empty, the kernel drops further events without a word.
TEST_F(LocalIpsHardenedTest, EventsThatAreQueuedAreHandledBeforeTheListIsReadAgain)
{
    expect(Severity::Error, lostEvents);
    Reports reports;
    LocalIps sut(reports.as("+"), reports.as("-"),
                 [&]
                 {
                     kernel.send(added("10.0.0.1"));
                     kernel.send(deleted("10.0.0.1"));
                     kernel.setAddresses({"10.0.0.2"});
                 });

    kernel.add(recvFails(ENOBUFS));

    ASSERT_TRUE(kernel.waitUntilIdle());
    EXPECT_THAT(reports.all(), ElementsAre("+10.0.0.1", "-10.0.0.1", "+10.0.0.2"));
    std::string const pollOnly = "poll(4711, POLLIN, 1, 0)";
    EXPECT_THAT(kernel.receiverCalls(),
                ElementsAre(onePoll, oneRecv, pollOnly, oneRecv, pollOnly, oneRecv, pollOnly, "getifaddrs"));
}

TEST_F(LocalIpsHardenedTest, ListThatCannotBeReadAgainIsTriedWheneverAPollTimesOut)
{
    expect(Severity::Error, lostEvents);
    capture.expect(isLine(Severity::Error, "LocalIps", HasSubstr("Failed to get initial list")));
    capture.expect(isLine(Severity::Error, "LocalIps", HasSubstr("getifaddrs failed with 24")));
    LocalIps sut({}, {}, {});
    kernel.setAddresses({"10.0.0.1"});
    kernel.fail("getifaddrs", EMFILE);

    kernel.add(recvFails(ENOBUFS));
    ASSERT_TRUE(kernel.waitUntilIdle());
    kernel.send(added("10.0.0.2"));
    kernel.add(pollGives(0));
    ASSERT_TRUE(kernel.waitUntilIdle());
    EXPECT_THAT(addressesOf(sut), ElementsAre("10.0.0.2"));
    kernel.fail("getifaddrs", 0);
    kernel.add(pollGives(0));
    kernel.add(pollGives(0));

    ASSERT_TRUE(kernel.waitUntilIdle());
    EXPECT_THAT(addressesOf(sut), ElementsAre("10.0.0.1"));
    std::string const read = "getifaddrs";
    EXPECT_THAT(kernel.receiverCalls(), ElementsAre(onePoll, oneRecv, "poll(4711, POLLIN, 1, 0)", read, onePoll,
                                                    oneRecv, onePoll, read, onePoll, read, onePoll));
}

TEST_F(LocalIpsHardenedTest, ExceptionsOfCallbacksLeaveNoDifferenceOut)
{
    expect(Severity::Error, lostEvents);
    expect(Severity::Error, "processAllNetlinkMessages: ignoring exception no use");
    expect(Severity::Error, "processAllNetlinkMessages: ignoring exception unknown exception");
    kernel.setAddresses({"10.0.0.1", "10.0.0.2"});
    bool const* started = nullptr;
    auto const refuse = [&started](IpAddress const& /*ip*/)
    {
        if (started != nullptr)
        {
            throw std::logic_error("no use");
        }
    };
    LocalIps sut(refuse, [](IpAddress const& /*ip*/) { throw 5; }, {});
    bool const yes = true;
    started = &yes;
    kernel.setAddresses({"10.0.0.3", "10.0.0.4"});

    kernel.add(recvFails(ENOBUFS));

    ASSERT_TRUE(kernel.waitUntilIdle());
    EXPECT_THAT(addressesOf(sut), ElementsAre("10.0.0.3", "10.0.0.4"));
    EXPECT_THAT(linesWith("ignoring"), testing::SizeIs(4));
}

TEST_F(LocalIpsHardenedTest, DestructorLeavesTheRestOfTheDifferencesOut)
{
    expect(Severity::Error, lostEvents);
    kernel.setAddresses({"10.0.0.1", "10.0.0.2"});
    Reports reports;
    std::promise<void> reported;
    auto const destroying = std::make_shared<std::promise<void>>();
    auto sut = std::make_unique<LocalIps>(
        reports.as("+"),
        [&, goesOn = destroying->get_future().share()](IpAddress const& ip)
        {
            reports.as("-")(ip);
            reported.set_value();
            goesOn.wait_for(std::chrono::minutes(1));
        },
        nullptr);
    kernel.setAddresses({"10.0.0.3"});
    kernel.add(recvFails(ENOBUFS));
    ASSERT_TRUE(becomesReady(reported.get_future(), std::chrono::minutes(1)));
    kernel.beforeSend([destroying] { destroying->set_value(); }); // after the flag is set

    sut.reset();

    EXPECT_THAT(reports.all(), ElementsAre("+10.0.0.1", "+10.0.0.2", "-10.0.0.1"));
}

TEST_F(LocalIpsHardenedTest, OtherErrorsDoNotLetTheListBeReadAgain)
{
    capture.expect(isLine(Severity::Error, "LocalIps", HasSubstr("recv on NETLINK_ROUTE socket failed")));
    LocalIps const sut({}, {}, {});

    kernel.add(recvFails(ENOMEM));
    kernel.add(pollGives(0));

    ASSERT_TRUE(kernel.waitUntilIdle());
    EXPECT_THAT(kernel.receiverCalls(), ElementsAre(onePoll, oneRecv, onePoll));
}

TEST_F(LocalIpsHardenedTest, DestructorWakesTheReceiverThreadAndClosesTheSocketAfterItsEnd)
{
    auto sut = std::make_unique<LocalIps>(nullptr, nullptr, nullptr);
    FakeNetlink::Pass answer;
    answer.bytes = message(NLMSG_ERROR, std::string(20, '\0'));
    answer.atEnd = true;
    kernel.add(answer);
    ASSERT_TRUE(kernel.waitUntilIdle());
    auto const before = kernel.ownerCalls().size();
    capture.onLine([this](LogLine const& each) { kernel.note(each.text); });

    sut.reset();

    auto calls = kernel.ownerCalls();
    calls.erase(calls.begin(), calls.begin() + static_cast<std::ptrdiff_t>(before));
    EXPECT_THAT(calls,
                ElementsAre("+LocalIps destructor", "send(NLMSG_NOOP)", "-receiverThread", "close", "socket closed",
                            "waiting for receiver thread to stop...", "receiver thread stopped"));
    EXPECT_THAT(kernel.receiverCalls(), ElementsAre(onePoll)); // the answer to the message is left alone
}

TEST_F(LocalIpsHardenedTest, DestructorOfAMonitorWhoseReceiverThreadHasEndedReturns)
{
    capture.expect(isLine(Severity::Error, "LocalIps", HasSubstr("no use")));
    capture.expect(isLine(Severity::Error, "LocalIps", HasSubstr("recv on NETLINK_ROUTE socket failed")));
    auto sut = std::make_unique<LocalIps>(nullptr, nullptr, [] { throw std::runtime_error("no use"); });
    kernel.add(recvFails(ENOMEM));
    ASSERT_TRUE(capture.waitFor(isLine(Severity::Info, "LocalIps", "-receiverThread")));

    sut.reset();

    EXPECT_EQ(capture.lines().back(), line(Severity::Info, "receiver thread stopped"));
    EXPECT_THAT(kernel.ownerCalls(), Contains("close"));
}

}

}
