// Runs the example in a network namespace, where nobody else changes addresses.

#include "support/NetworkNamespace.h"
#include "support/RunningProgram.h"

#include <gmock/gmock.h>

#include <signal.h>

#include <string>
#include <vector>

namespace Halden::Tavro
{

namespace
{

using testing::AllOf;
using testing::HasSubstr;
using testing::StartsWith;
using namespace TestSupport;

class Addresses : public RunningProgram
{
public:
    explicit Addresses(std::vector<std::string> const& arguments)
        : RunningProgram(ADDRESSES, arguments)
    {
    }
};

class AddressesTest : public testing::Test
{
protected:
    void SetUp() override
    {
        if (auto const refusal = networkNamespaceRefusal())
        {
            GTEST_SKIP() << *refusal;
        }
    }
};

TEST_F(AddressesTest, PrintsEachAddressWithItsInterface)
{
    inNetworkNamespace(
        []
        {
            NetworkControl control;
            control.addInterface("link0", "veth");
            control.addAddress("link0", "10.0.0.1");

            Addresses sut({});

            EXPECT_EQ(sut.line(), "127.0.0.1 lo");
            EXPECT_EQ(sut.line(), "10.0.0.1 link0");
            EXPECT_EQ(sut.line(), "::1 lo");
            EXPECT_EQ(sut.line(), "");
            EXPECT_EQ(sut.status(), 0);
        });
}

TEST_F(AddressesTest, FollowsTheAddressesUntilASignal)
{
    inNetworkNamespace(
        []
        {
            NetworkControl control;
            Addresses sut({"--watch"});
            EXPECT_EQ(sut.line(), "+ 127.0.0.1 lo");
            EXPECT_EQ(sut.line(), "+ ::1 lo");

            control.addAddress("lo", "10.0.0.1");
            EXPECT_EQ(sut.line(), "+ 10.0.0.1 lo");
            control.addAddress("lo", "fd00::1", "fd00::2");
            EXPECT_EQ(sut.line(), "+ fd00::1 lo");
            control.removeAddress("lo", "10.0.0.1");
            EXPECT_EQ(sut.line(), "- 10.0.0.1");
            sut.send(SIGINT);

            EXPECT_EQ(sut.status(), 0);
            EXPECT_EQ(sut.line(), "");
        });
}

TEST_F(AddressesTest, GivesUpAtAnAddressThatCannotBeFollowed)
{
    inNetworkNamespace(
        []
        {
            NetworkControl control;
            Addresses sut({"--watch"});
            EXPECT_EQ(sut.line(), "+ 127.0.0.1 lo");
            EXPECT_EQ(sut.line(), "+ ::1 lo");

            control.addAddress("lo", "fd00::1");

            EXPECT_THAT(sut.line(), StartsWith("addresses: an IPv6 address has changed"));
            EXPECT_EQ(sut.status(), 3);
        });
}

TEST_F(AddressesTest, SaysThatEventsWereLost)
{
    inNetworkNamespace(
        []
        {
            NetworkControl control;
            Addresses sut({"--watch"});
            EXPECT_EQ(sut.line(), "+ 127.0.0.1 lo");
            EXPECT_EQ(sut.line(), "+ ::1 lo");

            sut.send(SIGSTOP);
            for (int i = 0; i < 1000; ++i)
            {
                control.addAddress("lo", "10.1." + std::to_string(i / 250) + '.' + std::to_string(i % 250 + 1));
            }
            sut.send(SIGCONT);
            EXPECT_TRUE(sut.showsLineWith("! events were lost: what follows may be incomplete; start again"));
            sut.send(SIGINT);
            EXPECT_EQ(sut.status(), 0);
        });
}

TEST_F(AddressesTest, HelpAndBadOptionsAreAnswered)
{
    Addresses help({"--help"});
    Addresses bad({"--loudly"});

    EXPECT_EQ(help.line(), "Prints the addresses of this machine with their interfaces.");
    EXPECT_EQ(help.status(), 0);
    EXPECT_THAT(bad.line(), AllOf(StartsWith("addresses: "), HasSubstr("--loudly")));
    EXPECT_EQ(bad.status(), 2);
}

}

}
