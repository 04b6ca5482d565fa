// Compares texts with inet_pton and inet_ntop, and counts allocations. No call of the system is replaced here.

#include <utils/IpAddress.h>

#include "support/LogCapture.h"
#include "support/Resources.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <optional>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

namespace Halden::Tavro::Utils
{

namespace
{

constexpr int rounds = 100'000;

/// An address as the system's functions see it.
struct Reference
{
    int family;
    std::array<unsigned char, 16> bytes; // only the first four of an IPv4 address, zeros behind them
};

bool operator==(Reference const& left, Reference const& right)
{
    return left.family == right.family && left.bytes == right.bytes;
}

class Random
{
public:
    std::uint32_t below(std::uint32_t limit) { return static_cast<std::uint32_t>(engine() % limit); }

    /// Half of them with zeros in between, which an IPv6 text leaves out.
    Reference address()
    {
        Reference result{below(2) == 0 ? AF_INET : AF_INET6, {}};
        bool const sparse = below(2) == 0;
        std::size_t const size = result.family == AF_INET ? 4 : 16;
        for (std::size_t i = 0; i < size; i += 2)
        {
            bool const zero = sparse && below(2) == 0;
            result.bytes[i] = static_cast<unsigned char>(zero ? 0 : below(256));
            result.bytes[i + 1] = static_cast<unsigned char>(zero ? 0 : below(256));
        }
        return result;
    }

    /// A text changed in one to three places.
    std::string mutated(std::string text)
    {
        constexpr std::string_view characters = "0123456789abcdefABCDEFgxX.:/-";
        for (std::uint32_t changes = 1 + below(3); changes > 0; --changes)
        {
            char const character = characters[below(static_cast<std::uint32_t>(characters.size()))];
            std::size_t const at = below(static_cast<std::uint32_t>(text.size() + 1));
            std::uint32_t const kind = below(3);
            text.replace(at, kind == 0 ? 0 : 1, kind == 1 ? 0 : 1, character); // inserts, removes, replaces
        }
        return text;
    }

private:
    std::mt19937 engine{20240305}; // the same addresses in every run
};

std::string inetNtop(Reference const& address)
{
    std::array<char, INET6_ADDRSTRLEN> text{};
    return inet_ntop(address.family, address.bytes.data(), text.data(), text.size());
}

std::optional<Reference> inetPton(std::string const& text)
{
    for (int const family : {AF_INET, AF_INET6})
    {
        Reference result{family, {}};
        if (inet_pton(family, text.c_str(), result.bytes.data()) == 1)
        {
            return result;
        }
    }
    return std::nullopt;
}

/// The forms that inet_pton refuses and the resolver understands. The texts here have no space, after which inet_aton
/// would take anything.
std::optional<Reference> inetAton(std::string const& text)
{
    Reference result{AF_INET, {}};
    in_addr address{};
    if (inet_aton(text.c_str(), &address) == 0)
    {
        return std::nullopt;
    }
    std::memcpy(result.bytes.data(), &address, sizeof(address));
    return result;
}

IpAddress made(Reference const& reference)
{
    sockaddr_storage source{};
    source.ss_family = static_cast<sa_family_t>(reference.family);
    if (reference.family == AF_INET)
    {
        std::memcpy(&reinterpret_cast<sockaddr_in*>(&source)->sin_addr, reference.bytes.data(), 4);
    }
    else
    {
        std::memcpy(&reinterpret_cast<sockaddr_in6*>(&source)->sin6_addr, reference.bytes.data(), 16);
    }
    return IpAddress::fromSockaddr(reinterpret_cast<sockaddr const*>(&source));
}

Reference referenceOf(IpAddress const& address)
{
    Reference result{address.sockaddr()->sa_family, {}};
    if (address.isv4())
    {
        std::memcpy(result.bytes.data(), &address.sockaddr_in()->sin_addr, 4);
    }
    else
    {
        std::memcpy(result.bytes.data(), &address.sockaddr_in6()->sin6_addr, 16);
    }
    return result;
}

std::optional<Reference> parsed(std::string const& text)
{
    try
    {
        return referenceOf(IpAddress::fromString(text));
    }
    catch (std::invalid_argument const&)
    {
        return std::nullopt;
    }
}

/// Refusals are logged, and here there are many.
class IpAddressTextTest : public testing::Test
{
protected:
    TestSupport::LogCapture log{Log::Severity::Critical};
    Random random;
};

TEST_F(IpAddressTextTest, RandomAddressesArePrintedAsByInetNtopAndComeBack)
{
    for (int i = 0; i < rounds; ++i)
    {
        auto const reference = random.address();
        auto const sut = made(reference);

        auto const text = sut.string();

        ASSERT_EQ(text, inetNtop(reference));
        ASSERT_TRUE(inetPton(text) == reference) << text;
        ASSERT_TRUE(IpAddress::fromString(text) == sut) << text;
        ASSERT_TRUE(parsed(text) == reference) << text;
    }
}

TEST_F(IpAddressTextTest, RandomTextsAreUnderstoodAsByInetPtonOrElseByInetAton)
{
    int understood = 0;
    int refused = 0;
    int onlyByInetAton = 0;
    for (int i = 0; i < rounds; ++i)
    {
        auto const text = random.mutated(inetNtop(random.address()));
        auto expected = inetPton(text);
        if (!expected.has_value())
        {
            expected = inetAton(text);
            onlyByInetAton += expected.has_value() ? 1 : 0;
        }

        ASSERT_TRUE(parsed(text) == expected) << text;

        (expected.has_value() ? understood : refused) += 1;
    }
    EXPECT_GT(understood, rounds / 10);
    EXPECT_GT(refused, rounds / 10);
    EXPECT_GT(onlyByInetAton, 100);
}

TEST_F(IpAddressTextTest, ComparingTellingAndCopyingAllocateNothing)
{
    auto const ip4 = IpAddress::fromString("192.0.2.1");
    auto const ip6 = IpAddress::fromString("2001:db8::1");
    auto const before = TestSupport::heapAllocations();

    IpAddress copy = ip4;
    copy = ip6;
    bool const all = copy == ip6 && !(copy == ip4) && ip4.isv4() && ip6.isv6() && !ip4.isLoopback() &&
                     !ip6.isLoopback() && IpAddress::fromSockaddr(ip4.sockaddr()) == ip4;
    auto const after = TestSupport::heapAllocations();

    EXPECT_TRUE(all);
    EXPECT_EQ(after, before);
}

TEST_F(IpAddressTextTest, PrintingAllocatesAtMostTheString)
{
    for (std::string const text : {"10.0.0.1", "255.255.255.255", "::1", "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff"})
    {
        auto const address = IpAddress::fromString(text);
        auto const before = TestSupport::heapAllocations();

        std::string const printed = address.string();

        bool const fitsInside = text.size() <= std::string().capacity();
        EXPECT_EQ(TestSupport::heapAllocations(), before + (fitsInside ? 0 : 1)) << text;
        EXPECT_EQ(printed, text);
    }
}

}

}
