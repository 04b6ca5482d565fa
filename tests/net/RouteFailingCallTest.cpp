// What look-ups leave behind when one of their calls fails, in either build.

#include <utils/IpAddress.h>

#include "net/RouteFailingCallFixture.h"

namespace Halden::Tavro::Utils
{

namespace
{

using namespace TestSupport;
using testing::IsEmpty;

using RouteFailingCallTest = RouteFailingCallFixture;

TEST_F(RouteFailingCallTest, LookUpThatFailsLeavesNoSocketAndNoAddresses)
{
    auto const failures = {callsOf("getaddrinfo", getaddrinfoDouble, EAI_AGAIN, 0),
                           callsOf("getsockname", getsocknameDouble, -1, ENOBUFS)};

    EXPECT_THAT(leftByFailingCalls(failures, lookUp, [this] { return socketLeft(); }), IsEmpty());
}

TEST_F(RouteFailingCallTest, AddressThatCannotBeParsedLeavesNothing)
{
    EXPECT_THAT(leftByFailingCalls(
                    {callsOf("getaddrinfo", getaddrinfoDouble, EAI_MEMORY, 0)},
                    [] { IpAddress::fromString("192.0.2.1"); },
                    [this]
                    {
                        takeCalls();
                        return "";
                    }),
                IsEmpty());
}

}

}
