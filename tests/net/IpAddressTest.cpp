#include <utils/IpAddress.h>

#include "net/IpAddressFixture.h"
#include "support/Fenced.h"

#include <gmock/gmock.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <new>
#include <string>
#include <type_traits>
#include <vector>

namespace Halden::Tavro::Utils
{

namespace
{

using testing::Each;
using testing::IsEmpty;
using namespace TestSupport;

using IpAddressTest = IpAddressFixture;

TEST_F(IpAddressTest, IsAPolymorphicCopyableStorageAndNothingElse)
{
    static_assert(std::has_virtual_destructor_v<IpAddress>);
    static_assert(std::is_copy_constructible_v<IpAddress> && std::is_copy_assignable_v<IpAddress>);
    static_assert(!std::is_default_constructible_v<IpAddress>);
    static_assert(sizeof(IpAddress) == sizeof(void*) + sizeof(sockaddr_storage));

    IpAddress const original = v4({192, 0, 2, 1});
    IpAddress copy = v6(loopbackBytes);
    copy = original;

    EXPECT_EQ(copy.string(), "192.0.2.1");
    EXPECT_NE(copy.sockaddr(), original.sockaddr());
    EXPECT_EQ(bytesOf(copy.sockaddr(), sizeof(sockaddr_storage)),
              bytesOf(original.sockaddr(), sizeof(sockaddr_storage)));
}

TEST_F(IpAddressTest, ConstructorReadsExactlyTheSocketAddressAndFillsUpWithZeros)
{
    struct Case
    {
        sa_family_t family;
        std::size_t size;
    };
    for (Case const& example : {Case{AF_INET, 16}, Case{AF_INET6, 28}})
    {
        std::vector<unsigned char> bytes(example.size, 0xA5);
        std::memcpy(bytes.data(), &example.family, sizeof(example.family));
        Fenced const source(bytes.data(), bytes.size());
        alignas(IpAddress) std::array<unsigned char, sizeof(IpAddress)> place{};
        place.fill(0xFF); // or zeros that happen to be there would do

        auto* const sut = new (place.data()) IpAddress(source.as<sockaddr>());

        auto const stored = bytesOf(sut->sockaddr(), sizeof(sockaddr_storage));
        sut->~IpAddress();
        auto const end = stored.begin() + static_cast<std::ptrdiff_t>(example.size);
        EXPECT_EQ(std::vector<unsigned char>(stored.begin(), end), bytes);
        EXPECT_THAT(std::vector<unsigned char>(end, stored.end()), Each(0));
    }
}

TEST_F(IpAddressTest, ConstructorReadsSixteenBytesOfAnUnsupportedFamily)
{
    sa_family_t const family = AF_UNIX;
    std::vector<unsigned char> bytes(16, 0);
    std::memcpy(bytes.data(), &family, sizeof(family));
    Fenced const source(bytes.data(), bytes.size());

    expectRefusal([&] { IpAddress const sut(source.as<sockaddr>()); }, "IpAddress ctor got unsupported AI_FAMILY",
                  "Invalid IP address family");
}

TEST_F(IpAddressTest, EveryOtherFamilyIsRefused)
{
    for (int const family : {AF_UNSPEC, AF_UNIX, AF_PACKET, AF_NETLINK, 0xFFFF})
    {
        sockaddr_storage source{};
        source.ss_family = static_cast<sa_family_t>(family);
        for (auto const& make : {+[](sockaddr const* address) { return IpAddress(address); }, &IpAddress::fromSockaddr})
        {
            expectRefusal([&] { make(generic(source)); }, "IpAddress ctor got unsupported AI_FAMILY",
                          "Invalid IP address family");
        }
    }
}

TEST_F(IpAddressTest, NullPointerIsRefused)
{
    expectRefusal([] { IpAddress::fromSockaddr(nullptr); }, "IpAddress::fromSockaddr got nullptr", "nullptr");
}

TEST_F(IpAddressTest, FromSockaddrIsTheConstructor)
{
    auto const source = v4Source({192, 0, 2, 1}, 4711);

    auto const sut = IpAddress::fromSockaddr(generic(source));

    EXPECT_EQ(bytesOf(sut.sockaddr_in(), sizeof(source)), bytesOf(&source, sizeof(source)));
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(IpAddressTest, ViewsShowTheSameStorage)
{
    auto source = v6Source(loopbackBytes);
    source.sin6_port = htons(80);
    source.sin6_flowinfo = htonl(5);
    source.sin6_scope_id = 7;

    IpAddress const sut(generic(source));

    EXPECT_EQ(static_cast<void const*>(sut.sockaddr()), sut.sockaddr_in());
    EXPECT_EQ(static_cast<void const*>(sut.sockaddr()), sut.sockaddr_in6());
    EXPECT_EQ(sut.sockaddr()->sa_family, AF_INET6);
    EXPECT_EQ(sut.sockaddr_in()->sin_port, htons(80));
    EXPECT_EQ(sut.sockaddr_in6()->sin6_flowinfo, htonl(5));
    EXPECT_EQ(sut.sockaddr_in6()->sin6_scope_id, 7U);
}

TEST_F(IpAddressTest, FamilyIsThatOfTheSource)
{
    EXPECT_TRUE(v4({0, 0, 0, 0}).isv4());
    EXPECT_FALSE(v4({0, 0, 0, 0}).isv6());
    EXPECT_FALSE(v6(loopbackBytes).isv4());
    EXPECT_TRUE(v6(loopbackBytes).isv6());
}

// kept: services tell 255.255.255.255 from their own addresses by it
TEST_F(IpAddressTest, V4LoopbackIsToldByTheLowSevenBitsOfTheFirstOctet)
{
    EXPECT_TRUE(IpAddress::fromString("127.0.0.1").isLoopback());
    EXPECT_TRUE(IpAddress::fromString("127.255.0.9").isLoopback());
    EXPECT_TRUE(IpAddress::fromString("255.1.2.3").isLoopback());
    EXPECT_FALSE(IpAddress::fromString("128.0.0.1").isLoopback());
    EXPECT_FALSE(IpAddress::fromString("10.0.0.1").isLoopback());
    for (unsigned octet = 0; octet <= 255; ++octet)
    {
        bool const expected = octet == 127 || octet == 255;
        EXPECT_EQ(v4({static_cast<std::uint8_t>(octet), 127, 0, 127}).isLoopback(), expected) << octet;
    }
}

TEST_F(IpAddressTest, V6LoopbackIsOneSingleAddress)
{
    EXPECT_TRUE(IpAddress::fromString("::1").isLoopback());
    EXPECT_FALSE(IpAddress::fromString("::").isLoopback());
    EXPECT_FALSE(IpAddress::fromString("::ffff:127.0.0.1").isLoopback());
    for (unsigned bit = 0; bit < 128; ++bit)
    {
        auto bytes = loopbackBytes;
        bytes[bit / 8] = static_cast<std::uint8_t>(bytes[bit / 8] ^ 1U << bit % 8);
        EXPECT_FALSE(v6(bytes).isLoopback()) << bit;
    }
}

TEST_F(IpAddressTest, ScopeAndPortDoNotMatterToALoopbackAddress)
{
    auto source = v6Source(loopbackBytes);
    source.sin6_port = htons(80);
    source.sin6_scope_id = 1;

    EXPECT_TRUE(IpAddress(generic(source)).isLoopback());
}

TEST_F(IpAddressTest, LoopbackOfAnotherFamilyIsLoggedAndFalse)
{
    std::string const text = "IP address is neither v4 nor v6, cannot test if it is a loopback.";
    expectError(text);

    EXPECT_FALSE(inFamily(AF_UNIX).isLoopback());

    expectOnlyError(text);
}

TEST_F(IpAddressTest, V4AddressesAreEqualWhenAllBytesAre)
{
    std::array<std::uint8_t, 4> const bytes = {192, 0, 2, 1};

    EXPECT_TRUE(v4(bytes) == v4(bytes));
    EXPECT_TRUE(IpAddress(generic(v4Source(bytes, 80))) == IpAddress(generic(v4Source(bytes, 443))));
    auto filledUp = v4Source(bytes);
    filledUp.sin_zero[0] = 1;
    EXPECT_TRUE(IpAddress(generic(filledUp)) == v4(bytes));
    for (unsigned bit = 0; bit < 32; ++bit)
    {
        auto other = bytes;
        other[bit / 8] = static_cast<std::uint8_t>(other[bit / 8] ^ 1U << bit % 8);
        EXPECT_FALSE(v4(bytes) == v4(other)) << bit;
    }
}

TEST_F(IpAddressTest, V6AddressesAreEqualWhenAllBytesAre)
{
    V6Bytes const bytes = {0xFE, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
    auto scoped = v6Source(bytes);
    scoped.sin6_port = htons(80);
    scoped.sin6_flowinfo = htonl(5);
    scoped.sin6_scope_id = 7;

    EXPECT_TRUE(v6(bytes) == v6(bytes));
    EXPECT_TRUE(v6(bytes) == IpAddress(generic(scoped)));
    for (unsigned bit = 0; bit < 128; ++bit)
    {
        auto other = bytes;
        other[bit / 8] = static_cast<std::uint8_t>(other[bit / 8] ^ 1U << bit % 8);
        EXPECT_FALSE(v6(bytes) == v6(other)) << bit;
    }
}

TEST_F(IpAddressTest, DifferentFamiliesAreNeverEqualAndNothingIsLogged)
{
    auto const address = IpAddress::fromString("127.0.0.1");

    EXPECT_FALSE(address == IpAddress::fromString("::ffff:127.0.0.1"));
    EXPECT_FALSE(IpAddress::fromString("::ffff:127.0.0.1") == address);
    EXPECT_FALSE(IpAddress::fromString("0.0.0.0") == IpAddress::fromString("::"));
    EXPECT_FALSE(address == inFamily(AF_UNIX));
    EXPECT_FALSE(inFamily(AF_UNIX) == address);
    EXPECT_FALSE(inFamily(AF_UNIX) == inFamily(AF_PACKET));
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(IpAddressTest, AddressesOfAnotherFamilyAreLoggedAndNeverEqual)
{
    std::string const text = "IpAddress::operator== unsupported address family: 17";
    expectError(text);
    auto const address = inFamily(AF_PACKET);

    EXPECT_FALSE(address == address);

    expectOnlyError(text);
}

}

}
