#include <utils/LocalIps.h>

#include "net/FakeNetlink.h"
#include "net/Monitor.h"
#include "net/NetlinkMessages.h"
#include "support/LogCapture.h"
#include "support/VirtualSlot.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

namespace Halden::Tavro::Utils
{

namespace
{

using Log::Severity;
using testing::Each;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StrEq;
using testing::ThrowsMessage;
using namespace std::chrono_literals;
using namespace TestSupport;

LogLine line(Severity severity, std::string const& text)
{
    return {severity, "LocalIps", text};
}

FakeNetlink::Pass pollGives(int result, int error = 0)
{
    FakeNetlink::Pass pass;
    pass.pollResult = result;
    pass.pollError = error;
    return pass;
}

FakeNetlink::Pass recvFails(int error)
{
    FakeNetlink::Pass pass;
    pass.recvError = error;
    return pass;
}

std::string const onePoll = "poll(4711, POLLIN, 1, 1000)";
std::string const oneRecv = "recv(4711, 4096, 0)";

class LocalIpsTest : public testing::Test
{
protected:
    LocalIpsTest()
    {
        capture.onLine([](auto const& /*line*/) { errno = EDOM; }); // as logging may
    }

    /// Announces lines that are no fault.
    void expect(Severity severity, std::string const& text)
    {
        capture.expect(isLine(severity, "LocalIps", StrEq(text)));
    }

    /// What is logged about that, in order.
    std::vector<LogLine> linesWith(std::string const& part) const
    {
        auto lines = capture.lines();
        auto const other = [&part](LogLine const& each) { return each.text.find(part) == std::string::npos; };
        lines.erase(std::remove_if(lines.begin(), lines.end(), other), lines.end());
        return lines;
    }

    FakeNetlink kernel;
    LogCapture capture;
};

TEST_F(LocalIpsTest, ConstructionSubscribesToAddressEventsAndThenReadsTheAddresses)
{
    LocalIps const sut({}, {}, {});

    EXPECT_THAT(kernel.ownerCalls(),
                ElementsAre("socket(AF_NETLINK, SOCK_RAW, 0)", "bind(family 16, port 0, groups 0x110, length 12)",
                            "fcntl(F_SETFL, O_NONBLOCK)", "getifaddrs"));
}

TEST_F(LocalIpsTest, ReceiverThreadRunsBeforeTheAddressesAreRead)
{
    kernel.beforeStart([this] { EXPECT_TRUE(kernel.waitUntilIdle()); });

    LocalIps const sut({}, {}, {});

    EXPECT_THAT(kernel.ownerCalls().back(), "getifaddrs");
}

struct FailingStep
{
    char const* function;
    std::size_t calls; // on the way to and with the failure
    char const* log;
    char const* exception;
};

class LocalIpsFailingStepTest : public LocalIpsTest, public testing::WithParamInterface<FailingStep>
{
};

TEST_P(LocalIpsFailingStepTest, IsLoggedAndThrownAndLeavesTheDescriptorOpen)
{
    kernel.fail(GetParam().function, EACCES);
    expect(Severity::Error, GetParam().log);

    EXPECT_THAT([] { LocalIps const sut({}, {}, {}); }, ThrowsMessage<std::runtime_error>(StrEq(GetParam().exception)));

    EXPECT_THAT(capture.lines(), ElementsAre(line(Severity::Error, GetParam().log)));
    EXPECT_EQ(kernel.ownerCalls().size(), GetParam().calls); // no close
    EXPECT_THAT(kernel.receiverCalls(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(
    , LocalIpsFailingStepTest,
    testing::Values(FailingStep{"socket", 1, "Couldn't open NETLINK_ROUTE socket, errno=13 (Permission denied)",
                                "Failed to open NETLINK_ROUTE socket."},
                    FailingStep{"bind", 2, "Failed to bind to NETLINK_ROUTE socket, errno=13 (Permission denied)",
                                "Failed to bind to NETLINK_ROUTE socket."},
                    FailingStep{"fcntl", 3,
                                "Failed to set the socket as O_NONBLOCK, fcntl set errno to 13(Permission denied)",
                                "Failed to configure the NETLINK_ROUTE socket."}),
    [](auto const& step) { return step.param.function; });

TEST_F(LocalIpsTest, ConstructorListsAndReportsTheAddressesOfTheStart)
{
    kernel.setStart({"127.0.0.1", "", "packet", "10.0.0.1", "::1"});
    std::vector<std::string> reported;
    std::vector<std::thread::id> threads;

    LocalIps sut(
        [&](IpAddress const& ip)
        {
            reported.push_back(ip.string());
            threads.push_back(std::this_thread::get_id());
        },
        {}, {});

    EXPECT_THAT(reported, ElementsAre("127.0.0.1", "10.0.0.1", "::1"));
    EXPECT_THAT(threads, Each(std::this_thread::get_id()));
    EXPECT_THAT(addressesOf(sut), ElementsAre("127.0.0.1", "10.0.0.1", "::1"));
    EXPECT_THAT(linesWith("new IP"), ElementsAre(line(Severity::Info, "new IP address: 127.0.0.1"),
                                                 line(Severity::Info, "new IP address: 10.0.0.1"),
                                                 line(Severity::Info, "new IP address: ::1")));
}

TEST_F(LocalIpsTest, AddressesThatDifferOnlyInScopeIdAreOne)
{
    kernel.setStart({"fe80::1%2", "fe80::1%3"});
    std::string const warning = "handleNewAddress(fe80::1): IP is already in our list, doing nothing";
    expect(Severity::Warning, warning);

    LocalIps sut({}, {}, {});

    EXPECT_THAT(addressesOf(sut), ElementsAre("fe80::1"));
    EXPECT_THAT(linesWith("handleNew"), ElementsAre(line(Severity::Warning, warning)));
}

TEST_F(LocalIpsTest, AddressThatComesBeforeTheStartReadsItIsReportedOnce)
{
    kernel.setStart({"10.0.0.1"});
    kernel.beforeStart(
        [this]
        {
            kernel.send(added("10.0.0.1"));
            EXPECT_TRUE(kernel.waitUntilIdle());
        });
    std::string const warning = "handleNewAddress(10.0.0.1): IP is already in our list, doing nothing";
    expect(Severity::Warning, warning);
    std::atomic<int> reports{0};

    LocalIps sut([&reports](auto const& /*ip*/) { ++reports; }, {}, {});

    EXPECT_EQ(reports, 1);
    EXPECT_THAT(addressesOf(sut), ElementsAre("10.0.0.1"));
    EXPECT_THAT(linesWith("handleNew"), ElementsAre(line(Severity::Warning, warning)));
}

TEST_F(LocalIpsTest, ListOfTheStartIsNeverFreed)
{
    kernel.setStart({"10.0.0.1"});

    std::make_unique<LocalIps>(nullptr, nullptr, nullptr).reset();

    EXPECT_THAT(kernel.ownerCalls(), Not(testing::Contains("freeifaddrs")));
    EXPECT_THAT(kernel.ownerCalls(), testing::Contains("getifaddrs"));
}

TEST_F(LocalIpsTest, EmptyCallbacksAreNotCalled)
{
    kernel.setStart({"10.0.0.1"});
    kernel.send(deleted("10.0.0.1"));
    kernel.add(recvFails(ENOBUFS));
    capture.expect(isLine(Severity::Error, "LocalIps", HasSubstr("recv on NETLINK_ROUTE socket failed")));
    capture.expect(isLine(Severity::Warning, "LocalIps", HasSubstr("IP is NOT in our list")));

    LocalIps const sut({}, {}, {});

    EXPECT_TRUE(kernel.waitUntilIdle());
}

TEST_F(LocalIpsTest, EventsChangeTheListAndReachTheCallbacksOnTheReceiverThread)
{
    std::vector<std::string> reported;
    std::vector<std::thread::id> threads;
    auto const reporter = [&](char const* sign)
    {
        return [&, sign](IpAddress const& ip)
        {
            reported.push_back(sign + ip.string());
            threads.push_back(std::this_thread::get_id());
        };
    };
    LocalIps sut(reporter("+"), reporter("-"), {});

    kernel.send(added("10.0.0.1") + added("fd00::1"));
    kernel.send(deleted("10.0.0.1"));

    ASSERT_TRUE(kernel.waitUntilIdle());
    EXPECT_THAT(reported, ElementsAre("+10.0.0.1", "+fd00::1", "-10.0.0.1"));
    EXPECT_THAT(threads, Each(testing::AllOf(threads.front(), testing::Ne(std::this_thread::get_id()))));
    EXPECT_THAT(addressesOf(sut), ElementsAre("fd00::1"));
    EXPECT_THAT(kernel.receiverCalls(), ElementsAre(onePoll, oneRecv, onePoll, oneRecv));
    EXPECT_THAT(
        capture.linesOf("LocalIps"),
        ElementsAre(line(Severity::Info, "+receiverThread"), line(Severity::Trace, "receiverThread: recv returned 76"),
                    line(Severity::Trace, "nlToIpAddress: got IPv4"), line(Severity::Info, "new IP address: 10.0.0.1"),
                    line(Severity::Trace, "nlToIpAddress: got IPv6"), line(Severity::Info, "new IP address: fd00::1"),
                    line(Severity::Trace, "receiverThread: recv returned 32"),
                    line(Severity::Trace, "nlToIpAddress: got IPv4"),
                    line(Severity::Info, "lost IP address: 10.0.0.1")));
}

TEST_F(LocalIpsTest, CallbacksMayAskForTheListWhichHasChangedAlready)
{
    LocalIps* monitor = nullptr;
    std::vector<std::vector<std::string>> seen;
    auto const look = [&](auto const& /*ip*/) { seen.push_back(addressesOf(*monitor)); };
    LocalIps sut(look, look, {});
    monitor = &sut;

    kernel.send(added("10.0.0.1") + added("10.0.0.2") + deleted("10.0.0.1"));

    ASSERT_TRUE(kernel.waitUntilIdle());
    EXPECT_THAT(seen,
                ElementsAre(ElementsAre("10.0.0.1"), ElementsAre("10.0.0.1", "10.0.0.2"), ElementsAre("10.0.0.2")));
}

TEST_F(LocalIpsTest, NothingIsReceivedWhenPollRunsIntoItsTimeOut)
{
    LocalIps const sut({}, {}, {});

    kernel.add(pollGives(0));
    kernel.add(pollGives(0));

    ASSERT_TRUE(kernel.waitUntilIdle());
    EXPECT_THAT(kernel.receiverCalls(), ElementsAre(onePoll, onePoll));
    EXPECT_THAT(capture.lines(), ElementsAre(line(Severity::Info, "+receiverThread")));
}

TEST_F(LocalIpsTest, FailedPollIsLoggedAndReportedAndThenReceivedAllTheSame)
{
    std::string const failed = "poll failed with 12(Cannot allocate memory)";
    expect(Severity::Error, failed);
    std::vector<std::vector<std::string>> atReport;
    LocalIps sut({}, {}, [&] { atReport.push_back(kernel.receiverCalls()); });

    auto pass = pollGives(-1, ENOMEM);
    pass.bytes = added("10.0.0.1");
    kernel.add(pass);

    ASSERT_TRUE(kernel.waitUntilIdle());
    EXPECT_THAT(atReport, ElementsAre(ElementsAre(onePoll))); // before recv
    EXPECT_THAT(addressesOf(sut), ElementsAre("10.0.0.1"));
    EXPECT_THAT(capture.lines(), ElementsAre(line(Severity::Info, "+receiverThread"), line(Severity::Error, failed),
                                             line(Severity::Trace, "receiverThread: recv returned 32"),
                                             line(Severity::Trace, "nlToIpAddress: got IPv4"),
                                             line(Severity::Info, "new IP address: 10.0.0.1")));
}

TEST_F(LocalIpsTest, NoDataIsNoError)
{
    int reports = 0;
    LocalIps const sut({}, {}, [&reports] { ++reports; });

    kernel.add(recvFails(EAGAIN));

    ASSERT_TRUE(kernel.waitUntilIdle());
    EXPECT_EQ(reports, 0);
    EXPECT_THAT(capture.lines(), ElementsAre(line(Severity::Info, "+receiverThread"),
                                             line(Severity::Trace, "receiverThread: recv returned -1"),
                                             line(Severity::Debug, "no data to read, going back to select loop")));
}

TEST_F(LocalIpsTest, FailedReceiveIsLoggedAndReportedAndEndsNothing)
{
    std::string const failed =
        "receiverThread: recv on NETLINK_ROUTE socket failed, errno 105 (No buffer space available),";
    expect(Severity::Error, failed);
    std::vector<std::thread::id> reports;
    LocalIps sut({}, {}, [&reports] { reports.push_back(std::this_thread::get_id()); });

    kernel.add(recvFails(ENOBUFS));
    kernel.send(added("10.0.0.1"));

    ASSERT_TRUE(kernel.waitUntilIdle());
    EXPECT_THAT(reports, ElementsAre(Not(std::this_thread::get_id())));
    EXPECT_THAT(addressesOf(sut), ElementsAre("10.0.0.1"));
    EXPECT_THAT(linesWith("receiverThread"),
                ElementsAre(line(Severity::Info, "+receiverThread"),
                            line(Severity::Trace, "receiverThread: recv returned -1"), line(Severity::Error, failed),
                            line(Severity::Trace, "receiverThread: recv returned 32")));
}

TEST_F(LocalIpsTest, EmptyAnswerIsFollowedByASleepOfOneSecondThatASignalDoesNotShorten)
{
    int reports = 0;
    kernel.interruptSleep({0, 600'000'000});
    LocalIps const sut({}, {}, [&reports] { ++reports; });

    kernel.send("");
    kernel.add(pollGives(0));

    ASSERT_TRUE(kernel.waitUntilIdle());
    EXPECT_EQ(reports, 0);
    EXPECT_THAT(kernel.receiverCalls(),
                ElementsAre(onePoll, oneRecv, "nanosleep(1 s 0 ns)", "nanosleep(0 s 600000000 ns)", onePoll));
    EXPECT_THAT(capture.lines(), ElementsAre(line(Severity::Info, "+receiverThread"),
                                             line(Severity::Trace, "receiverThread: recv returned 0"),
                                             line(Severity::Debug, "receiverThread: returned 0: now sleeping a bit")));
}

TEST_F(LocalIpsTest, ExceptionOfTheErrorCallbackEndsTheReceiverThread)
{
    capture.expect(isLine(Severity::Error, "LocalIps", HasSubstr("recv on NETLINK_ROUTE socket failed")));
    expect(Severity::Error, "-receiverThread caught exception no use");
    auto sut = std::make_unique<LocalIps>(nullptr, nullptr, [] { throw std::runtime_error("no use"); });

    kernel.add(recvFails(ENOBUFS));
    ASSERT_TRUE(capture.waitFor(isLine(Severity::Info, "LocalIps", "-receiverThread")));
    kernel.send(added("10.0.0.1"));

    EXPECT_EQ(capture.lines().at(capture.lines().size() - 2),
              line(Severity::Error, "-receiverThread caught exception no use"));
    EXPECT_THAT(addressesOf(*sut), IsEmpty());
    sut.reset(); // ends as ever
    EXPECT_THAT(kernel.receiverCalls(), ElementsAre(onePoll, oneRecv));
    EXPECT_EQ(capture.lines().back(), line(Severity::Info, "receiver thread stopped"));
}

TEST_F(LocalIpsTest, ExceptionOfAnAddressCallbackLetsTheEventBeHandledAgain)
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

TEST_F(LocalIpsTest, DestructorClosesTheSocketAndThenWaitsForTheReceiverThread)
{
    auto sut = std::make_unique<LocalIps>(nullptr, nullptr, nullptr);
    ASSERT_TRUE(kernel.waitUntilIdle());
    auto const owner = std::this_thread::get_id();
    capture.onLine(
        [this, owner](LogLine const& each)
        {
            EXPECT_EQ(each.severity, Severity::Info);
            kernel.note((std::this_thread::get_id() == owner ? "" : "receiver: ") + each.text);
        });

    sut.reset();

    auto calls = kernel.ownerCalls();
    calls.erase(calls.begin(), calls.begin() + 4);
    EXPECT_EQ(std::count(calls.begin(), calls.end(), "receiver: -receiverThread"), 1);
    calls.erase(std::remove(calls.begin(), calls.end(), "receiver: -receiverThread"), calls.end());
    EXPECT_THAT(calls, ElementsAre("+LocalIps destructor", "close", "socket closed",
                                   "waiting for receiver thread to stop...", "receiver thread stopped"));
    auto const lines = capture.lines();
    EXPECT_LT(std::find(lines.begin(), lines.end(), line(Severity::Info, "-receiverThread")) - lines.begin(),
              std::find(lines.begin(), lines.end(), line(Severity::Info, "receiver thread stopped")) - lines.begin());
}

TEST_F(LocalIpsTest, ErrorsOfTheClosedSocketAreLoggedButNotReported)
{
    capture.expect(isLine(Severity::Error, "LocalIps", HasSubstr("failed")));
    int reports = 0;
    auto sut = std::make_unique<LocalIps>(nullptr, nullptr, [&reports] { ++reports; });
    auto pass = pollGives(-1, EBADF);
    pass.recvError = EBADF;
    pass.atClose = true;
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

TEST_F(LocalIpsTest, CallbacksAreMovedIn)
{
    auto const token = std::make_shared<int>();
    auto const callback = [token](auto const&...) {};
    Monitor::AddressCallback onNew = callback;
    Monitor::AddressCallback onLost = callback;
    std::function<void()> onError = callback;

    long owners = 0;
    kernel.beforeStart([&] { owners = token.use_count(); }); // while the constructor still has its parameters

    LocalIps const sut(std::move(onNew), std::move(onLost), std::move(onError));

    EXPECT_EQ(owners, 5); // its own, the lambda's and one in each callback
}

/// Whether that can be said outside of the class and its heirs.
template <typename Use>
constexpr bool isPublic(Use const& /*use*/)
{
    return std::is_invocable_v<Use, LocalIps&>;
}

TEST(LocalIpsClassTest, OnlyTheListIsPublic)
{
    EXPECT_TRUE(isPublic([](auto& sut) -> decltype(sut.addresses()) { return sut.addresses(); }));
    EXPECT_FALSE(isPublic([](auto& sut) -> decltype(sut.openNetlinkRouteSocket()) {}));
    EXPECT_FALSE(isPublic([](auto& sut) -> decltype(static_cast<void>(sut.nlToIpAddress(nullptr))) {}));
    EXPECT_FALSE(isPublic([](auto& sut) -> decltype(sut.handleNewAddress(sut.addresses().front())) {}));
    EXPECT_FALSE(isPublic([](auto& sut) -> decltype(sut.handleLostAddress(sut.addresses().front())) {}));
    EXPECT_FALSE(isPublic([](auto& sut) -> decltype(sut.processAllNetlinkMessages(nullptr, 0)) {}));
    EXPECT_FALSE(isPublic([](auto& sut) -> decltype(sut.receiverThread()) {}));
    EXPECT_FALSE(isPublic([](auto& sut) -> decltype(sut.initialAddrList()) {}));
}

TEST(LocalIpsClassTest, CannotBeCopiedOrMoved)
{
    EXPECT_FALSE(std::is_copy_constructible_v<LocalIps> || std::is_copy_assignable_v<LocalIps>);
    EXPECT_FALSE(std::is_move_constructible_v<LocalIps> || std::is_move_assignable_v<LocalIps>);
}

TEST(LocalIpsClassTest, IsPrivatelyALoggerWithAVirtualDestructorOnly)
{
    EXPECT_TRUE((std::is_base_of_v<Log::Logger, LocalIps>));
    EXPECT_FALSE((std::is_convertible_v<LocalIps*, Log::Logger*>));
    EXPECT_TRUE(std::has_virtual_destructor_v<LocalIps>);
    EXPECT_EQ(virtualSlot(&LocalIps::addresses), -1);
    EXPECT_EQ(virtualSlot(&Monitor::handleNewAddress), -1);
    EXPECT_EQ(virtualSlot(&Monitor::receiverThread), -1);
}

}

}
