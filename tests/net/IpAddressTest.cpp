#include <utils/IpAddress.h>

#include "support/CallDouble.h"
#include "support/LogCapture.h"

#include <gmock/gmock.h>

#include <arpa/inet.h>
#include <dlfcn.h>
#include <net/if.h>
#include <netdb.h>
#include <sys/mman.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <functional>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <vector>

namespace Halden::Tavro::Utils
{

namespace
{

using Log::Severity;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using testing::StrEq;
using testing::ThrowsMessage;
using TestSupport::CallDouble;
using TestSupport::isLine;
using TestSupport::LogCapture;
using TestSupport::LogLine;

CallDouble<int(char const*, char const*, addrinfo const*, addrinfo**)> getaddrinfoDouble{"getaddrinfo"};
CallDouble<char const*(int, void const*, char*, socklen_t)> inetNtopDouble{"inet_ntop"};

addrinfo const* listOfTest = nullptr; // which the system must not free
std::vector<addrinfo*> freedLists;

}

extern "C"
{

    int getaddrinfo(char const* node, char const* service, addrinfo const* hints, addrinfo** list)
    {
        return getaddrinfoDouble(node, service, hints, list);
    }

    void freeaddrinfo(addrinfo* list) noexcept
    {
        freedLists.push_back(list);
        if (list != listOfTest)
        {
            reinterpret_cast<decltype(&freeaddrinfo)>(dlsym(RTLD_NEXT, "freeaddrinfo"))(list);
        }
    }

    char const* inet_ntop(int family, void const* address, char* text, socklen_t size) noexcept
    {
        return inetNtopDouble(family, address, text, size);
    }
}

namespace
{

sockaddr_in v4Source(std::array<std::uint8_t, 4> const& bytes, std::uint16_t port = 0)
{
    sockaddr_in source{};
    source.sin_family = AF_INET;
    source.sin_port = htons(port);
    std::memcpy(&source.sin_addr, bytes.data(), bytes.size());
    return source;
}

using V6Bytes = std::array<std::uint8_t, 16>;

sockaddr_in6 v6Source(V6Bytes const& bytes)
{
    sockaddr_in6 source{};
    source.sin6_family = AF_INET6;
    std::memcpy(&source.sin6_addr, bytes.data(), bytes.size());
    return source;
}

template <typename Source>
sockaddr const* generic(Source const& source)
{
    return reinterpret_cast<sockaddr const*>(&source);
}

IpAddress v4(std::array<std::uint8_t, 4> const& bytes)
{
    return IpAddress(generic(v4Source(bytes)));
}

IpAddress v6(V6Bytes const& bytes)
{
    return IpAddress(generic(v6Source(bytes)));
}

V6Bytes const loopbackBytes = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};

/// What no constructor makes: an object that somebody wrote to.
IpAddress inFamily(sa_family_t family)
{
    IpAddress address = v4({127, 0, 0, 1});
    const_cast<sockaddr*>(address.sockaddr())->sa_family = family;
    return address;
}

/// The bytes of an object's storage, or of a source.
template <typename Source>
std::vector<unsigned char> bytesOf(Source const* source, std::size_t count)
{
    std::vector<unsigned char> bytes(count);
    std::memcpy(bytes.data(), source, count);
    return bytes;
}

/// Bytes right in front of a page that nobody can read.
class Fenced
{
public:
    explicit Fenced(std::vector<unsigned char> const& bytes)
        : pages(mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0))
    {
        if (pages == MAP_FAILED || mprotect(end(), page, PROT_NONE) != 0)
        {
            throw std::runtime_error("no fence");
        }
        first = end() - bytes.size();
        std::memcpy(first, bytes.data(), bytes.size());
    }

    ~Fenced() { munmap(pages, 2 * page); }

    Fenced(Fenced const&) = delete;
    Fenced& operator=(Fenced const&) = delete;

    sockaddr const* address() const { return reinterpret_cast<sockaddr const*>(first); }

private:
    char* end() const { return static_cast<char*>(pages) + page; }

    std::size_t const page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    void* pages;
    char* first{nullptr};
};

class IpAddressTest : public testing::Test
{
protected:
    IpAddressTest()
    {
        getaddrinfoDouble.reset();
        inetNtopDouble.reset();
        freedLists.clear();
    }

    ~IpAddressTest() override
    {
        getaddrinfoDouble.reset();
        inetNtopDouble.reset();
        listOfTest = nullptr;
    }

    void expectError(std::string const& text) { log.expect(isLine(Severity::Error, "", text)); }

    /// That this one line is all that was logged.
    void expectOnlyError(std::string const& text)
    {
        EXPECT_THAT(log.lines(), ElementsAre(isLine(Severity::Error, "", text)));
    }

    void expectRefusal(std::function<void()> const& action, std::string const& logged, std::string const& thrown)
    {
        expectError(logged);
        log.clear();
        EXPECT_THAT(action, ThrowsMessage<std::invalid_argument>(StrEq(thrown)));
        expectOnlyError(logged);
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
        listOfTest = found.data();
        getaddrinfoDouble.replace(
            [this](char const*, char const*, addrinfo const*, addrinfo** list)
            {
                *list = found.empty() ? nullptr : found.data();
                return 0;
            });
    }

    /// That the list was given back, once and from its start.
    void expectListFreed() { EXPECT_THAT(freedLists, ElementsAre(found.data())); }

    LogCapture log;
    std::vector<addrinfo> found;
};

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
        Fenced const source(bytes);

        IpAddress const sut(source.address());

        auto const stored = bytesOf(sut.sockaddr(), sizeof(sockaddr_storage));
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
    Fenced const source(bytes);

    expectRefusal([&] { IpAddress const sut(source.address()); }, "IpAddress ctor got unsupported AI_FAMILY",
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

TEST_F(IpAddressTest, TextIsMadeByInetNtopOfTheAddressInside)
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

TEST_F(IpAddressTest, TextHasNoPortNoBracketsAndNoScope)
{
    auto scoped = v6Source({0xFE, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1});
    scoped.sin6_port = htons(80);
    scoped.sin6_scope_id = 1;

    EXPECT_EQ(IpAddress(generic(scoped)).string(), "fe80::1");
    EXPECT_EQ(IpAddress(generic(v4Source({10, 0, 0, 1}, 80))).string(), "10.0.0.1");
}

TEST_F(IpAddressTest, LongestTextFits)
{
    EXPECT_EQ(v4({255, 255, 255, 255}).string(), "255.255.255.255");
    V6Bytes bytes{};
    bytes.fill(0xFF);
    EXPECT_EQ(v6(bytes).string(), "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff");
}

TEST_F(IpAddressTest, FailureOfInetNtopIsLoggedWithItsErrnoAndThrown)
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

TEST_F(IpAddressTest, TextOfAnotherFamilyIsLoggedAndThrows)
{
    std::string const text = "Neither IPv4 nor IPv6: cannot convert to string";
    expectError(text);

    EXPECT_THAT([] { inFamily(AF_UNIX).string(); },
                ThrowsMessage<std::runtime_error>(
                    StrEq("IP address is neither v4 nor v6: don't now how to convert it to string")));

    expectOnlyError(text);
    EXPECT_EQ(inetNtopDouble.count(), 0U);
}

TEST_F(IpAddressTest, ParsingAsksTheResolverForNumbersOnly)
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
    EXPECT_THAT(freedLists, SizeIs(1));
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(IpAddressTest, FailureOfTheResolverIsLoggedWithItsCodeAndThrown)
{
    getaddrinfoDouble.failCall(1, EAI_MEMORY, 0);

    expectRefusal([] { IpAddress::fromString("192.0.2.1"); },
                  "IpAddress::fromString(192.0.2.1): getaddrinfo failed with -10 (Memory allocation failure)",
                  "Failed to parse the IP address.");

    EXPECT_THAT(freedLists, IsEmpty());
}

TEST_F(IpAddressTest, FirstEntryOfEitherFamilyIsTaken)
{
    auto const unixSource = sockaddr_un{AF_UNIX, {}};
    auto const first = v6Source(loopbackBytes);
    auto const second = v4Source({192, 0, 2, 1});
    letResolverFind({{AF_UNIX, generic(unixSource)}, {AF_INET6, generic(first)}, {AF_INET, generic(second)}});

    EXPECT_EQ(IpAddress::fromString("text").string(), "::1");

    expectListFreed();
}

TEST_F(IpAddressTest, ListWithoutAnIpAddressIsFreedBeforeTheFailureIsLogged)
{
    auto const unixSource = sockaddr_un{AF_UNIX, {}};
    letResolverFind({{AF_UNIX, generic(unixSource)}, {AF_PACKET, generic(unixSource)}});
    log.onLine([](LogLine const&) { EXPECT_THAT(freedLists, SizeIs(1)); });

    expectRefusal([] { IpAddress::fromString("text"); },
                  "IpAddress::fromString(text): no IP address found in getaddrinfo result",
                  "Failed to parse the IP address.");

    expectListFreed();
}

TEST_F(IpAddressTest, EmptyListIsAFailure)
{
    letResolverFind({});

    expectRefusal([] { IpAddress::fromString("text"); },
                  "IpAddress::fromString(text): no IP address found in getaddrinfo result",
                  "Failed to parse the IP address.");
}

TEST_F(IpAddressTest, ListIsFreedWhenTheConstructorThrows)
{
    auto const unixSource = sockaddr_un{AF_UNIX, {}};
    letResolverFind({{AF_INET, generic(unixSource)}});

    expectRefusal([] { IpAddress::fromString("text"); }, "IpAddress ctor got unsupported AI_FAMILY",
                  "Invalid IP address family");

    expectListFreed();
}

TEST_F(IpAddressTest, WhatIsNotANumericAddressIsRefused)
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

TEST_F(IpAddressTest, FormsOfInetAtonAreUnderstood)
{
    EXPECT_EQ(IpAddress::fromString("127.1").string(), "127.0.0.1");
    EXPECT_EQ(IpAddress::fromString("192.0.513").string(), "192.0.2.1");
    EXPECT_EQ(IpAddress::fromString("0x7f000001").string(), "127.0.0.1");
    EXPECT_EQ(IpAddress::fromString("010.0.0.1").string(), "8.0.0.1");
    EXPECT_EQ(IpAddress::fromString("1").string(), "0.0.0.1");
}

TEST_F(IpAddressTest, TextEndsAtItsFirstNul)
{
    EXPECT_EQ(IpAddress::fromString(std::string("127.0.0.1\0.5", 12)).string(), "127.0.0.1");
}

TEST_F(IpAddressTest, ScopeIsUnderstoodAndKeptButTakesNoPart)
{
    auto const scoped = IpAddress::fromString("fe80::1%lo");

    EXPECT_EQ(scoped.sockaddr_in6()->sin6_scope_id, if_nametoindex("lo"));
    EXPECT_EQ(scoped.string(), "fe80::1");
    EXPECT_TRUE(scoped == IpAddress::fromString("fe80::1"));
}

}

}
