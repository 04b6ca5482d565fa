#include "support/NetworkNamespace.h"
#include "support/RunExample.h"
#include "support/SkippedWhere.h"

#include <gmock/gmock.h>

#include <sched.h>

#include <string>
#include <vector>

namespace Halden::Tavro::Examples
{

namespace
{

using namespace TestSupport;
using namespace testing;

ChildResult routeTo(std::vector<std::string> const& arguments, ExampleOptions const& options = {})
{
    return runExample(ROUTE_TO, arguments, options);
}

using RouteToLoopbackTest = SkippedWhere<loopbackRefusal>;

TEST_F(RouteToLoopbackTest, NamesTheLocalAddressAndItsInterface)
{
    auto const result = routeTo({"127.0.0.1"});

    EXPECT_EQ(result.output, "127.0.0.1 is reached from 127.0.0.1 on lo\n");
    EXPECT_EQ(result.exitCode, 0);
}

TEST(RouteToTest, HostThatCannotBeResolvedIsAnsweredWithOneSentence)
{
    auto const result = routeTo({"2001:db8::1"});

    EXPECT_EQ(result.output,
              "route_to: 2001:db8::1: getaddrinfo failed with Address family for hostname not supported\n");
    EXPECT_EQ(result.exitCode, 1);
}

TEST(RouteToTest, HostWithoutARouteIsAnsweredWithOneSentence)
{
    ExampleOptions options;
    options.prepare = [] { return unshare(CLONE_NEWNET) == 0 || unshare(CLONE_NEWUSER | CLONE_NEWNET) == 0; };
    auto const result = routeTo({"192.0.2.1"}, options);
    if (result.exitCode == 126)
    {
        GTEST_SKIP() << "not allowed to make a network namespace";
    }

    EXPECT_EQ(result.output, "route_to: 192.0.2.1: could not resolve IP or hostname\n");
    EXPECT_EQ(result.exitCode, 1);
}

TEST(RouteToTest, BadUseIsAnsweredWithOneSentence)
{
    expectRefusal(ROUTE_TO,
                  {{{}, "HOST"}, {{"--fast", "127.0.0.1"}, "--fast"}, {{"127.0.0.1", "127.0.0.2"}, "127.0.0.2"}});
}

TEST(RouteToTest, HelpNamesTheHost)
{
    auto const result = routeTo({"--help"});

    EXPECT_THAT(result.output, HasSubstr("HOST"));
    EXPECT_EQ(result.exitCode, 0);
}

TEST(RouteToTest, VersionIsThatOfTheLibrary)
{
    expectVersion(ROUTE_TO);
}

TEST_F(RouteToLoopbackTest, StandardOutputThatCannotBeWrittenIsAnError)
{
    expectComplaintAboutFullOutput(ROUTE_TO, {"127.0.0.1"});
}

}

}
