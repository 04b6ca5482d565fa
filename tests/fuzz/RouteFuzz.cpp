// Looks up the way to any numeric text, on a machine whose sockets and interfaces the input chooses.
//
// Input: seven bytes with what the system answers, and the text.

#include <log/Logger.h>
#include <utils/IpAddress.h>
#include <utils/Route.h>

#include "fuzz/Fuzz.h"
#include "support/CallDouble.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <ifaddrs.h>
#include <netdb.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace Halden::Tavro::Utils
{

namespace
{

using namespace TestSupport;

/// What the system answers to each entry that the resolver has found.
enum class Way : unsigned
{
    NoSocket,
    NoRoute,
    NoName,
    Open
};

/// The machine's answers, and what it was asked.
struct Machine
{
    std::vector<Way> ways; // of the entries, in their order
    int resolverCode{0};
    std::size_t tried{0};     // entries
    int connected{-1};        // the last socket that got a route
    in_addr local{};          // its own address
    std::vector<ifaddrs> all; // interfaces

    std::array<addrinfo, 4> copies{};
    addrinfo* resolved{nullptr};
};

Machine machine;

Way wayOfThisEntry()
{
    return machine.ways.at(machine.tried);
}

/// Never asks a name server. @return the system's code
int resolveNumeric(char const* name, addrinfo hints, addrinfo** list)
{
    hints.ai_flags |= AI_NUMERICHOST;
    using Function = int (*)(char const*, char const*, addrinfo const*, addrinfo**);
    static auto const resolve = systemFunction<Function>("getaddrinfo");
    return resolve(name, nullptr, &hints, list);
}

}

extern "C"
{

    int getaddrinfo(char const* name, char const* /*service*/, addrinfo const* hints, addrinfo** list)
    {
        int const code = resolveNumeric(name, *hints, list);
        machine.resolverCode = code;
        if (code != 0 || (hints->ai_flags & AI_NUMERICHOST) != 0)
        {
            return code;
        }
        // As many entries as the input wants, each with the one address.
        machine.resolved = *list;
        for (std::size_t i = 0; i < machine.ways.size(); ++i)
        {
            machine.copies.at(i) = **list;
            machine.copies.at(i).ai_next = i + 1 == machine.ways.size() ? nullptr : &machine.copies.at(i + 1);
        }
        *list = machine.copies.data();
        return 0;
    }

    void freeaddrinfo(addrinfo* list) noexcept
    {
        static auto const release = systemFunction<void (*)(addrinfo*)>("freeaddrinfo");
        if (list == machine.copies.data())
        {
            list = machine.resolved;
            machine.resolved = nullptr;
        }
        release(list);
    }

    int socket(int domain, int type, int /*protocol*/) noexcept
    {
        require(domain == AF_INET && type == SOCK_DGRAM);
        if (wayOfThisEntry() == Way::NoSocket)
        {
            ++machine.tried;
            errno = EMFILE;
            return -1;
        }
        return open("/dev/null", O_RDONLY); // NOLINT(cppcoreguidelines-pro-type-vararg): a number to be closed
    }

    int connect(int descriptor, sockaddr const* /*address*/, socklen_t length)
    {
        require(length == sizeof(sockaddr_in));
        if (wayOfThisEntry() == Way::NoRoute)
        {
            ++machine.tried;
            errno = ENETUNREACH;
            return -1;
        }
        machine.connected = descriptor;
        return 0;
    }

    int getsockname(int descriptor, sockaddr* address, socklen_t* length) noexcept
    {
        require(descriptor == machine.connected && *length == sizeof(sockaddr_in));
        if (wayOfThisEntry() == Way::NoName)
        {
            errno = ENOBUFS;
            return -1;
        }
        sockaddr_in local{};
        local.sin_family = AF_INET;
        local.sin_addr = machine.local;
        std::memcpy(address, &local, sizeof(local));
        return 0;
    }

    int getifaddrs(ifaddrs** list) noexcept
    {
        for (std::size_t i = 0; i + 1 < machine.all.size(); ++i)
        {
            machine.all[i].ifa_next = &machine.all[i + 1];
        }
        *list = machine.all.data();
        return 0;
    }

    void freeifaddrs(ifaddrs* list) noexcept
    {
        require(list == machine.all.data());
    }
}

namespace
{

bool isOpen(int descriptor)
{
    return fcntl(descriptor, F_GETFD) != -1; // NOLINT(cppcoreguidelines-pro-type-vararg)
}

/// The sentence of the exception, or the address.
std::string localIpFor(std::string const& text)
{
    try
    {
        return Ip::internalLocalIpForRemote(text);
    }
    catch (std::runtime_error const& error)
    {
        return error.what();
    }
}

std::string expectedAnswer()
{
    if (machine.resolverCode != 0)
    {
        return std::string("getaddrinfo failed with ") + gai_strerror(machine.resolverCode);
    }
    for (Way const way : machine.ways)
    {
        if (way == Way::NoName)
        {
            return "failed to get local socket name, errno=" + std::to_string(ENOBUFS);
        }
        if (way == Way::Open)
        {
            std::array<char, INET_ADDRSTRLEN> text{};
            return inet_ntop(AF_INET, &machine.local, text.data(), text.size());
        }
    }
    return "could not resolve IP or hostname";
}

void checkRoute(std::string const& text)
{
    int const before = lowestFreeNumber();
    std::string const answer = localIpFor(text);
    require(answer == expectedAnswer());
    require(machine.resolved == nullptr);

    bool const hasSucceeded = machine.connected != -1 && wayOfThisEntry() == Way::Open;
    if (hasSucceeded && !isHardened())
    {
        require(isOpen(machine.connected)); // kept: costs one descriptor for each success
        close(machine.connected);
    }
    require(lowestFreeNumber() == before);
}

std::optional<IpAddress> parsed(std::string const& text)
{
    try
    {
        return IpAddress::fromString(text);
    }
    catch (std::invalid_argument const&)
    {
        return std::nullopt;
    }
}

/// Interfaces that have no address, one of no IP family, this one, or another of the same family.
void checkInterface(IpAddress const& ip, std::array<std::uint8_t, 4> const& kinds)
{
    auto same = *reinterpret_cast<sockaddr_storage const*>(ip.sockaddr());
    auto other = same;
    auto const offset = ip.isv4() ? offsetof(sockaddr_in, sin_addr) : offsetof(sockaddr_in6, sin6_addr);
    reinterpret_cast<unsigned char*>(&other)[offset] ^= 1U;
    sockaddr_storage packet{};
    packet.ss_family = AF_PACKET;
    std::array<sockaddr_storage*, 4> const choices{nullptr, &packet, &same, &other};
    std::array<std::string, 4> names{"a", "b", "c", "d"};

    machine.all.assign(names.size(), ifaddrs{});
    std::string expected;
    for (std::size_t i = 0; i < names.size(); ++i)
    {
        machine.all[i].ifa_name = names.at(i).data();
        machine.all[i].ifa_addr = reinterpret_cast<sockaddr*>(choices.at(kinds.at(i) % choices.size()));
        expected = choices.at(kinds.at(i) % choices.size()) == &same ? names.at(i) : expected;
    }
    try
    {
        require(Ip::networkIfcNameForIp(ip) == expected && !expected.empty());
    }
    catch (std::invalid_argument const&)
    {
        require(expected.empty());
    }
}

}

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size)
{
    Log::LoggerProxy::instance().setThreshold(Log::Severity::Critical);
    FuzzInput input(data, size);
    machine = Machine{};
    unsigned const count = 1 + input.byte() % 4U;
    unsigned const ways = input.byte();
    for (unsigned i = 0; i < count; ++i)
    {
        machine.ways.push_back(static_cast<Way>((ways >> (2 * i)) & 3U));
    }
    machine.local.s_addr = htonl(0x0a000000U + input.byte());
    std::array<std::uint8_t, 4> kinds{};
    for (auto& kind : kinds)
    {
        kind = input.byte();
    }
    std::string const text = input.rest();

    checkRoute(text);
    if (auto const ip = parsed(text))
    {
        require(IpAddress::fromString(ip->string()) == *ip);
        checkInterface(*ip, kinds);
    }
    return 0;
}

}
