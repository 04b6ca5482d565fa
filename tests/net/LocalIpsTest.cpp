#include <utils/LocalIps.h>

#include "net/LocalIpsFixture.h"
#include "support/VirtualSlot.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstddef>
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
using testing::_;
using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StrEq;
using testing::ThrowsMessage;
using namespace TestSupport;

using LocalIpsTest = LocalIpsFixture;

TEST_F(LocalIpsTest, ConstructionSubscribesToAddressEventsAndThenReadsTheAddresses)
{
    LocalIps const sut({}, {}, {});

    EXPECT_THAT(kernel.ownerCalls(),
                ElementsAre("socket(AF_NETLINK, SOCK_RAW, 0)", "bind(family 16, port 0, groups 0x110, length 12)",
                            "fcntl(F_SETFL, O_NONBLOCK)", "getifaddrs"));
}

TEST_F(LocalIpsTest, ReceiverThreadRunsBeforeTheAddressesAreRead)
{
    kernel.beforeAddresses([this] { EXPECT_TRUE(kernel.waitUntilIdle()); });

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

class LocalIpsFailingStepTest : public LocalIpsFixture, public testing::WithParamInterface<FailingStep>
{
protected:
    std::size_t callsBut(std::string const& function) const
    {
        auto const calls = kernel.ownerCalls();
        return calls.size() - static_cast<std::size_t>(std::count(calls.begin(), calls.end(), function));
    }
};

TEST_P(LocalIpsFailingStepTest, IsLoggedAndThrown)
{
    kernel.fail(GetParam().function, EACCES);
    expect(Severity::Error, GetParam().log);

    EXPECT_THAT([] { LocalIps const sut({}, {}, {}); }, ThrowsMessage<std::runtime_error>(StrEq(GetParam().exception)));

    EXPECT_THAT(capture.lines(), ElementsAre(line(Severity::Error, GetParam().log)));
    EXPECT_EQ(callsBut("close"), GetParam().calls);
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
    kernel.setAddresses({"127.0.0.1", "", "packet", "10.0.0.1", "::1"});
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

// kept: a scope tells interfaces apart, and an address counts once, on whichever it is
TEST_F(LocalIpsTest, AddressesThatDifferOnlyInScopeIdAreOne)
{
    kernel.setAddresses({"fe80::1%2", "fe80::1%3"});
    std::string const warning = "handleNewAddress(fe80::1): IP is already in our list, doing nothing";
    expect(Severity::Warning, warning);

    LocalIps sut({}, {}, {});

    EXPECT_THAT(addressesOf(sut), ElementsAre("fe80::1"));
    EXPECT_THAT(linesWith("handleNew"), ElementsAre(line(Severity::Warning, warning)));
}

TEST_F(LocalIpsTest, AddressThatComesBeforeTheStartReadsItIsReportedOnce)
{
    kernel.setAddresses({"10.0.0.1"});
    kernel.beforeAddresses(
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

TEST_F(LocalIpsTest, EmptyCallbacksAreNotCalled)
{
    kernel.setAddresses({"10.0.0.1"});
    kernel.send(deleted("10.0.0.1"));
    kernel.add(recvFails(ENOMEM));
    capture.expect(isLine(Severity::Error, "LocalIps", HasSubstr("recv on NETLINK_ROUTE socket failed")));
    capture.expect(isLine(Severity::Warning, "LocalIps", HasSubstr("IP is NOT in our list")));

    LocalIps const sut({}, {}, {});

    EXPECT_TRUE(kernel.waitUntilIdle());
}

TEST_F(LocalIpsTest, DestructorSaysWhatItDoesInThisOrder)
{
    auto sut = std::make_unique<LocalIps>(nullptr, nullptr, nullptr);
    ASSERT_TRUE(kernel.waitUntilIdle());
    capture.expect(isLine(Severity::Error, "LocalIps", HasSubstr("recv on NETLINK_ROUTE socket failed")));
    capture.clear();

    sut.reset();

    auto lines = capture.lines();
    auto const ended = std::find(lines.begin(), lines.end(), line(Severity::Info, "-receiverThread"));
    auto const stopped = std::find(lines.begin(), lines.end(), line(Severity::Info, "receiver thread stopped"));
    EXPECT_LT(ended - lines.begin(), stopped - lines.begin());
    lines.erase(ended);
    EXPECT_THAT(lines, ElementsAre(line(Severity::Info, "+LocalIps destructor"), line(Severity::Info, "socket closed"),
                                   line(Severity::Info, "waiting for receiver thread to stop..."),
                                   line(Severity::Info, "receiver thread stopped")));
}

TEST_F(LocalIpsTest, DestructorClosesNoSocketWhereAHeirCouldNotOpenItAgain)
{
    capture.expect(isLine(Severity::Error, "LocalIps", _));
    auto sut = std::make_unique<Monitor>(nullptr, nullptr, [] { throw std::runtime_error("no use"); });
    kernel.add(recvFails(ENOMEM));
    ASSERT_TRUE(capture.waitFor(isLine(Severity::Info, "LocalIps", "-receiverThread")));
    kernel.fail("socket", EMFILE);
    EXPECT_THROW(sut->openNetlinkRouteSocket(), std::runtime_error);
    capture.clear();

    sut.reset();

    EXPECT_THAT(capture.lines(), ElementsAre(line(Severity::Info, "+LocalIps destructor"),
                                             line(Severity::Info, "waiting for receiver thread to stop..."),
                                             line(Severity::Info, "receiver thread stopped")));
    EXPECT_THAT(kernel.ownerCalls(), Not(Contains("close")));
}

TEST_F(LocalIpsTest, CallbacksAreMovedIn)
{
    auto const token = std::make_shared<int>();
    auto const callback = [token](auto const&...) {};
    Monitor::AddressCallback onNew = callback;
    Monitor::AddressCallback onLost = callback;
    std::function<void()> onError = callback;

    long owners = 0;
    kernel.beforeAddresses([&] { owners = token.use_count(); }); // while the constructor still has its parameters

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
