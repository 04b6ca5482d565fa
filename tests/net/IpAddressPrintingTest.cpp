// The text of an address.

#include <utils/IpAddress.h>

#include "net/IpAddressFixture.h"
#include "support/CallDouble.h"

#include <gmock/gmock.h>

#include <cerrno>
#include <stdexcept>
#include <string>
#include <tuple>

namespace Halden::Tavro::Utils
{

namespace
{

using testing::StrEq;
using testing::ThrowsMessage;
using namespace TestSupport;

CallDouble<char const*(int, void const*, char*, socklen_t)> inetNtopDouble{"inet_ntop"};

}

extern "C" char const* inet_ntop(int family, void const* address, char* text, socklen_t size) noexcept
{
    return inetNtopDouble(family, address, text, size);
}

namespace
{

class IpAddressPrintingTest : public IpAddressFixture
{
protected:
    IpAddressPrintingTest() { inetNtopDouble.reset(); }
    ~IpAddressPrintingTest() override { inetNtopDouble.reset(); }
};

TEST_F(IpAddressPrintingTest, TextIsMadeByInetNtopOfTheAddressInside)
{
    auto const ip4 = v4({192, 0, 2, 1});
    auto const ip6 = v6(loopbackBytes);

    EXPECT_EQ(ip4.string(), "192.0.2.1");
    EXPECT_EQ(ip6.string(), "::1");

    auto const calls = inetNtopDouble.calls();
    ASSERT_EQ(calls.size(), 2U);
    EXPECT_EQ(std::get<0>(calls[0]), AF_INET);
    EXPECT_EQ(std::get<1>(calls[0]), &ip4.sockaddr_in()->sin_addr);
    EXPECT_EQ(std::get<3>(calls[0]), 46U);
    EXPECT_EQ(std::get<0>(calls[1]), AF_INET6);
    EXPECT_EQ(std::get<1>(calls[1]), &ip6.sockaddr_in6()->sin6_addr);
    EXPECT_EQ(std::get<3>(calls[1]), 46U);
}

TEST_F(IpAddressPrintingTest, TextHasNoPortNoBracketsAndNoScope)
{
    auto scoped = v6Source({0xFE, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1});
    scoped.sin6_port = htons(80);
    scoped.sin6_scope_id = 1;

    EXPECT_EQ(IpAddress(generic(scoped)).string(), "fe80::1");
    EXPECT_EQ(IpAddress(generic(v4Source({10, 0, 0, 1}, 80))).string(), "10.0.0.1");
}

TEST_F(IpAddressPrintingTest, LongestTextFits)
{
    EXPECT_EQ(v4({255, 255, 255, 255}).string(), "255.255.255.255");
    V6Bytes bytes{};
    bytes.fill(0xFF);
    EXPECT_EQ(v6(bytes).string(), "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff");
}

TEST_F(IpAddressPrintingTest, FailureOfInetNtopIsLoggedWithItsErrnoAndThrown)
{
    inetNtopDouble.failCall(1, nullptr, ENOSPC);
    log.onLine([](LogLine const&) { errno = 0; });
    std::string const text = "inet_ntop failed with errno 28 (No space left on device)";
    expectError(text);

    EXPECT_THAT(
        [] {
            v4({192, 0, 2, 1}).string();
        },
        ThrowsMessage<std::runtime_error>(StrEq("IP address conversion to string failed.")));

    expectOnlyError(text);
}

// kept: "don't now", which is what the services' logs are searched for
TEST_F(IpAddressPrintingTest, TextOfAnotherFamilyIsLoggedAndThrows)
{
    std::string const text = "Neither IPv4 nor IPv6: cannot convert to string";
    expectError(text);

    EXPECT_THAT([] { inFamily(AF_UNIX).string(); },
                ThrowsMessage<std::runtime_error>(
                    StrEq("IP address is neither v4 nor v6: don't now how to convert it to string")));

    expectOnlyError(text);
    EXPECT_EQ(inetNtopDouble.count(), 0U);
}

}

}
