#include "support/ChildProcess.h"

#include <gmock/gmock.h>

#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

using namespace Halden::Tavro::TestSupport;
using namespace testing;

namespace
{

int execute(std::vector<std::string> arguments)
{
    arguments.insert(arguments.begin(), ROUTE_TO);
    std::vector<char*> pointers;
    for (auto& argument : arguments)
    {
        pointers.push_back(argument.data());
    }
    pointers.push_back(nullptr);
    execv(ROUTE_TO, pointers.data());
    return 127;
}

ChildResult routeTo(std::vector<std::string> const& arguments)
{
    return runInChild([&arguments] { return execute(arguments); });
}

TEST(RouteToTest, NamesTheLocalAddressAndItsInterface)
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
    auto const result = runInChild(
        []
        {
            if (unshare(CLONE_NEWNET) != 0 && unshare(CLONE_NEWUSER | CLONE_NEWNET) != 0)
            {
                return 77;
            }
            return execute({"192.0.2.1"});
        });
    if (result.exitCode == 77)
    {
        GTEST_SKIP() << "not allowed to make a network namespace";
    }

    EXPECT_EQ(result.output, "route_to: 192.0.2.1: could not resolve IP or hostname\n");
    EXPECT_EQ(result.exitCode, 1);
}

TEST(RouteToTest, BadUseIsAnsweredWithOneSentence)
{
    for (std::vector<std::string> const& arguments :
         {std::vector<std::string>{}, {"--fast"}, {"127.0.0.1", "127.0.0.2"}})
    {
        auto const result = routeTo(arguments);

        EXPECT_EQ(result.exitCode, 2);
        EXPECT_THAT(result.output, AllOf(StartsWith("route_to: "), EndsWith("\n")));
        EXPECT_EQ(std::count(result.output.begin(), result.output.end(), '\n'), 1) << result.output;
    }
}

TEST(RouteToTest, HelpNamesTheHost)
{
    auto const result = routeTo({"--help"});

    EXPECT_THAT(result.output, HasSubstr("HOST"));
    EXPECT_EQ(result.exitCode, 0);
}

}
