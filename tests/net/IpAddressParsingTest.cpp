// The address in a text.

#include <utils/IpAddress.h>

#include "net/IpAddressFixture.h"
#include "support/CallDouble.h"

#include <gmock/gmock.h>

#include <net/if.h>
#include <netdb.h>
#include <sys/un.h>

#include <cstddef>
#include <cstring>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

namespace Halden::Tavro::Utils
{

namespace
{

using testing::ElementsAre;
using testing::IsEmpty;
using namespace TestSupport;

CallDouble<int(char const*, char const*, addrinfo const*, addrinfo**)> getaddrinfoDouble{"getaddrinfo"};
CallDouble<void(addrinfo*)> freeaddrinfoDouble{"freeaddrinfo"};

}

extern "C"
{

    int getaddrinfo(char const* node, char const* service, addrinfo const* hints, addrinfo** list)
    {
        return getaddrinfoDouble(node, service, hints, list);
    }

    void freeaddrinfo(addrinfo* list) noexcept
    {
        freeaddrinfoDouble(list);
    }
}

namespace
{

class IpAddressParsingTest : public IpAddressFixture
{
protected:
    IpAddressParsingTest() { resetDoubles(); }
    ~IpAddressParsingTest() override { resetDoubles(); }

    static void resetDoubles()
    {
        getaddrinfoDouble.reset();
        freeaddrinfoDouble.reset();
    }

    /// Lets getaddrinfo find these, in this order, each with a family of its own beside that of its address.
    void letResolverFind(std::vector<std::pair<int, sockaddr const*>> const& entries)
    {
        found.assign(entries.size(), {});
        for (std::size_t i = 0; i < entries.size(); ++i)
        {
            found[i].ai_family = entries[i].first;
            found[i].ai_addr = const_cast<sockaddr*>(entries[i].second);
            found[i].ai_next = i + 1 < entries.size() ? &found[i + 1] : nullptr;
        }
        freeaddrinfoDouble.replace([](addrinfo*) {});
        getaddrinfoDouble.replace(
            [this](char const*, char const*, addrinfo const*, addrinfo** list)
            {
                *list = found.empty() ? nullptr : found.data();
                return 0;
            });
    }

    /// That the list was given back, once and from its start.
    void expectListFreed()
    {
        EXPECT_THAT(freeaddrinfoDouble.calls(), ElementsAre(std::tuple<addrinfo*>(found.data())));
    }

    std::vector<addrinfo> found;
};

TEST_F(IpAddressParsingTest, ParsingAsksTheResolverForNumbersOnly)
{
    getaddrinfoDouble.replace(
        [](char const* node, char const* service, addrinfo const* hints, addrinfo** list)
        {
            EXPECT_STREQ(node, "192.0.2.1");
            EXPECT_EQ(service, nullptr);
            addrinfo expected{};
            expected.ai_flags = AI_NUMERICHOST;
            EXPECT_EQ(bytesOf(hints, sizeof(addrinfo)), bytesOf(&expected, sizeof(addrinfo)));
            return getaddrinfoDouble.passOn(node, service, hints, list);
        });

    EXPECT_EQ(IpAddress::fromString("192.0.2.1").string(), "192.0.2.1");

    EXPECT_EQ(getaddrinfoDouble.count(), 1U);
    EXPECT_EQ(freeaddrinfoDouble.count(), 1U);
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(IpAddressParsingTest, FailureOfTheResolverIsLoggedWithItsCodeAndThrown)
{
    getaddrinfoDouble.failCall(1, EAI_MEMORY, 0);

    expectRefusal([] { IpAddress::fromString("192.0.2.1"); },
                  "IpAddress::fromString(192.0.2.1): getaddrinfo failed with -10 (Memory allocation failure)",
                  "Failed to parse the IP address.");

    EXPECT_EQ(freeaddrinfoDouble.count(), 0U);
}

TEST_F(IpAddressParsingTest, EveryCodeButZeroIsAFailureOfTheResolver)
{
    getaddrinfoDouble.failCall(1, 1, 0);

    expectRefusal([] { IpAddress::fromString("192.0.2.1"); },
                  "IpAddress::fromString(192.0.2.1): getaddrinfo failed with 1 (Unknown error)",
                  "Failed to parse the IP address.");
}

TEST_F(IpAddressParsingTest, FirstEntryOfEitherFamilyIsTaken)
{
    auto const unixSource = sockaddr_un{AF_UNIX, {}};
    auto const first = v6Source(loopbackBytes);
    auto const second = v4Source({192, 0, 2, 1});
    letResolverFind({{AF_UNIX, generic(unixSource)}, {AF_INET6, generic(first)}, {AF_INET, generic(second)}});

    EXPECT_EQ(IpAddress::fromString("text").string(), "::1");

    expectListFreed();
}

TEST_F(IpAddressParsingTest, ListWithoutAnIpAddressIsFreedBeforeTheFailureIsLogged)
{
    auto const unixSource = sockaddr_un{AF_UNIX, {}};
    letResolverFind({{AF_UNIX, generic(unixSource)}, {AF_PACKET, generic(unixSource)}});
    log.onLine([](LogLine const&) { EXPECT_EQ(freeaddrinfoDouble.count(), 1U); });

    expectRefusal([] { IpAddress::fromString("text"); },
                  "IpAddress::fromString(text): no IP address found in getaddrinfo result",
                  "Failed to parse the IP address.");

    expectListFreed();
}

TEST_F(IpAddressParsingTest, EmptyListIsAFailure)
{
    letResolverFind({});

    expectRefusal([] { IpAddress::fromString("text"); },
                  "IpAddress::fromString(text): no IP address found in getaddrinfo result",
                  "Failed to parse the IP address.");
}

TEST_F(IpAddressParsingTest, ListIsFreedWhenTheConstructorThrows)
{
    auto const unixSource = sockaddr_un{AF_UNIX, {}};
    letResolverFind({{AF_INET, generic(unixSource)}});

    expectRefusal([] { IpAddress::fromString("text"); }, "IpAddress ctor got unsupported AI_FAMILY",
                  "Invalid IP address family");

    expectListFreed();
}

TEST_F(IpAddressParsingTest, WhatIsNotANumericAddressIsRefused)
{
    for (std::string const text :
         {"localhost", "www.example.com", "", " 127.0.0.1", "127.0.0.1 ", "127.0.0.1:80", "127.0.0.1%lo", "[::1]",
          "256.1.1.1", "1.2.3.4.5", "1.2.3.", ":::", "1::2::3", "12345::", "fe80::1%", "fe80::1%no-such-if"})
    {
        expectRefusal([&] { IpAddress::fromString(text); },
                      "IpAddress::fromString(" + text + "): getaddrinfo failed with -2 (Name or service not known)",
                      "Failed to parse the IP address.");
    }
}

TEST_F(IpAddressParsingTest, FormsOfInetAtonAreUnderstood)
{
    EXPECT_EQ(IpAddress::fromString("127.1").string(), "127.0.0.1");
    EXPECT_EQ(IpAddress::fromString("192.0.513").string(), "192.0.2.1");
    EXPECT_EQ(IpAddress::fromString("0x7f000001").string(), "127.0.0.1");
    EXPECT_EQ(IpAddress::fromString("010.0.0.1").string(), "8.0.0.1");
    EXPECT_EQ(IpAddress::fromString("1").string(), "0.0.0.1");
}

TEST_F(IpAddressParsingTest, TextEndsAtItsFirstNul)
{
    EXPECT_EQ(IpAddress::fromString(std::string("127.0.0.1\0.5", 12)).string(), "127.0.0.1");
}

TEST_F(IpAddressParsingTest, ScopeIsUnderstoodAndKeptButTakesNoPart)
{
    auto const scoped = IpAddress::fromString("fe80::1%lo");

    EXPECT_EQ(scoped.sockaddr_in6()->sin6_scope_id, if_nametoindex("lo"));
    EXPECT_EQ(scoped.string(), "fe80::1");
    EXPECT_TRUE(scoped == IpAddress::fromString("fe80::1"));
}

}

}
