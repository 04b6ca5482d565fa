// Runs the example in a network namespace, where nobody else changes addresses.

#include "support/NetworkNamespace.h"
#include "support/RunExample.h"
#include "support/RunningProgram.h"
#include "support/SkippedWhere.h"

#include <gmock/gmock.h>

#include <signal.h>

#include <string>

namespace Halden::Tavro::Examples
{

namespace
{

using namespace TestSupport;
using namespace testing;

/// The program at work, which has shown what is there at its start.
class Watch : public RunningProgram
{
public:
    Watch()
        : RunningProgram(ADDRESSES, {"--watch"})
    {
        EXPECT_EQ(line(), "+ 127.0.0.1 lo");
        EXPECT_EQ(line(), "+ ::1 lo");
    }
};

using AddressesTest = SkippedWhere<networkNamespaceRefusal>;

TEST_F(AddressesTest, PrintsEachAddressWithItsInterface)
{
    inNetworkNamespace(
        []
        {
            NetworkControl control;
            control.addInterface("link0", "veth");
            control.addAddress("link0", "10.0.0.1");

            RunningProgram sut(ADDRESSES, {});

            EXPECT_EQ(sut.wholeOutput(), "127.0.0.1 lo\n10.0.0.1 link0\n::1 lo\n");
            EXPECT_EQ(sut.status(), 0);
        });
}

TEST_F(AddressesTest, FollowsTheAddressesUntilASignal)
{
    inNetworkNamespace(
        []
        {
            NetworkControl control;
            Watch sut;

            control.addAddress("lo", "10.0.0.1");
            EXPECT_EQ(sut.line(), "+ 10.0.0.1 lo");
            control.addAddress("lo", "fd00::1", "fd00::2");
            EXPECT_EQ(sut.line(), "+ fd00::1 lo");
            control.addAddress("lo", "fd00::3"); // reported without IFA_LOCAL, as most are
            EXPECT_EQ(sut.line(), "+ fd00::3 lo");
            control.removeAddress("lo", "fd00::3");
            EXPECT_EQ(sut.line(), "- fd00::3");
            control.removeAddress("lo", "10.0.0.1");
            EXPECT_EQ(sut.line(), "- 10.0.0.1");
            sut.send(SIGINT);

            EXPECT_EQ(sut.status(), 0);
            EXPECT_EQ(sut.line(), "");
        });
}

TEST_F(AddressesTest, ShowsTheAddressesWhoseEventsWereLostAfterAll)
{
    inNetworkNamespace(
        []
        {
            NetworkControl control;
            Watch sut;

            sut.send(SIGSTOP);
            for (int i = 0; i < 1000; ++i)
            {
                control.addAddress("lo", "10.1." + std::to_string(i / 250) + '.' + std::to_string(i % 250 + 1));
            }
            sut.send(SIGCONT);

            EXPECT_TRUE(sut.showsLineWith("! events were lost; with the hardened library, what has changed follows"));
            EXPECT_TRUE(sut.showsLineWith("+ 10.1.3.250 lo"));
            sut.send(SIGINT);
            EXPECT_EQ(sut.status(), 0);
        });
}

TEST_F(AddressesTest, StandardOutputThatCannotBeWrittenIsAnErrorAndEndsTheWatch)
{
    inNetworkNamespace(
        []
        {
            expectComplaintAboutFullOutput(ADDRESSES, {});
            expectComplaintAboutFullOutput(ADDRESSES, {"--watch"});
        });
}

TEST(AddressesUseTest, HelpSaysWhatItPrints)
{
    auto const result = runExample(ADDRESSES, {"--help"});

    EXPECT_THAT(result.output, StartsWith("Prints the addresses of this machine with their interfaces.\n"));
    EXPECT_EQ(result.exitCode, 0);
}

TEST(AddressesUseTest, BadOptionIsAnsweredWithOneSentence)
{
    expectRefusal(ADDRESSES, {{{"--loudly"}, "--loudly"}, {{"eth0"}, "eth0"}});
}

TEST(AddressesUseTest, VersionIsThatOfTheLibrary)
{
    expectVersion(ADDRESSES);
}

TEST(AddressesUseTest, StandardOutputThatCannotBeWrittenIsAnError)
{
    expectComplaintAboutFullOutput(ADDRESSES, {"--help"});
}

}

}
