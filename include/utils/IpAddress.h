#pragma once

#include <utils/Export.h>

#include <endian.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <array>
#include <cstdint>
#include <cstring>
#include <string>

namespace Halden::Tavro::Utils
{

/// One IPv4 or IPv6 address, as the system hands it out; the constructor refuses every other family.
///
///     auto const address = IpAddress::fromString("192.0.2.1");
///     if (!address.isLoopback())
///     {
///         use(address.string());
///     }
///
/// The port, flow information and scope id of the source are kept, but no comparison and no text shows them: fe80::1 on
/// two interfaces is the same address. To tell the two apart, compare sockaddr_in6()->sin6_scope_id as well.
///
/// Every failure is logged.
///
/// Threads: nothing is shared between objects, and an object that nobody writes to may be read from any thread.
class HALDEN_CPPUTILS_EXPORT IpAddress
{
public:
    /// @param address not null; 28 bytes of it are read when its family is AF_INET6, and 16 with any other
    /// @throws std::invalid_argument "Invalid IP address family"
    explicit IpAddress(::sockaddr const* address);

    /// Copies port, flow information and scope id as well.
    IpAddress(IpAddress const&) = default;

    /// Copies port, flow information and scope id as well.
    IpAddress& operator=(IpAddress const&) = default;

    virtual ~IpAddress() = default;

    /// Reads numeric text and never looks up a name, see getaddrinfo(3) with AI_NUMERICHOST.
    ///
    /// A scope is understood, as in "fe80::1%eth0". So are the short, octal and hexadecimal IPv4 forms of inet_aton(3):
    /// "127.1" is 127.0.0.1, and "010.0.0.1" is 8.0.0.1. Where only the dotted form may pass, compare the text with
    /// string().
    ///
    /// @throws std::invalid_argument "Failed to parse the IP address."
    static IpAddress fromString(std::string const& text);

    /// The constructor for a pointer that may be null.
    ///
    /// @throws std::invalid_argument "nullptr", and what the constructor throws
    static IpAddress fromSockaddr(::sockaddr const* address);

    /// The address inside this object, valid for as long as the object is.
    ::sockaddr const* sockaddr() const { return reinterpret_cast<::sockaddr const*>(&addr); }

    /// The same as an IPv4 address, whatever its family.
    ::sockaddr_in const* sockaddr_in() const { return reinterpret_cast<::sockaddr_in const*>(&addr); }

    /// The same as an IPv6 address, whatever its family.
    ::sockaddr_in6 const* sockaddr_in6() const { return reinterpret_cast<::sockaddr_in6 const*>(&addr); }

    /// Whether it is an IPv4 address.
    bool isv4() const { return addr.ss_family == AF_INET; }

    /// Whether it is an IPv6 address.
    bool isv6() const { return addr.ss_family == AF_INET6; }

    /// True for 127.x.x.x and ::1, and also for 255.x.x.x, the broadcast address among them; false for the IPv4-mapped
    /// form of 127.0.0.1. Where 255.x.x.x can turn up, look at the first octet in sockaddr_in()->sin_addr yourself.
    bool isLoopback() const;

    /// The numeric text, see inet_ntop(3): no port, no brackets, no scope.
    ///
    /// @throws std::runtime_error "IP address conversion to string failed.", or, for an object whose bytes
    ///         somebody has overwritten, "IP address is neither v4 nor v6: don't now how to convert it to string"
    std::string string() const;

    /// Whether family and address bytes are the same. An IPv4 address never equals an IPv6 address, its mapped form
    /// included.
    bool operator==(IpAddress const& other) const;

private:
    // Only for an object whose bytes somebody has overwritten: both log and answer false.
    [[gnu::cold]] bool isLoopbackInOtherFamily() const;
    [[gnu::cold]] bool equalsInOtherFamily() const;

    sockaddr_storage addr;
};

inline bool IpAddress::isLoopback() const
{
    if (isv4())
    {
        auto const firstOctet = *reinterpret_cast<unsigned char const*>(&sockaddr_in()->sin_addr);
        return (firstOctet & 0x7FU) == 0x7FU; // kept: [255-is-loopback] 255 passes too
    }
    if (isv6())
    {
        std::array<std::uint64_t, 2> words{};
        std::memcpy(words.data(), &sockaddr_in6()->sin6_addr, sizeof(words));
        return words[0] == 0 && words[1] == htobe64(1);
    }
    return isLoopbackInOtherFamily();
}

inline bool IpAddress::operator==(IpAddress const& other) const
{
    if (addr.ss_family != other.addr.ss_family)
    {
        return false;
    }
    if (__builtin_expect(static_cast<long>(isv4()), 1L) != 0) // the common case on devices, without a jump
    {
        return std::memcmp(&sockaddr_in()->sin_addr, &other.sockaddr_in()->sin_addr, sizeof(in_addr)) == 0;
    }
    if (isv6())
    {
        return std::memcmp(&sockaddr_in6()->sin6_addr, &other.sockaddr_in6()->sin6_addr, sizeof(in6_addr)) == 0;
    }
    return equalsInOtherFamily();
}

}
