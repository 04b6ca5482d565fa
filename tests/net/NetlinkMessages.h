#pragma once

#include <arpa/inet.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <cstdint>
#include <string>
#include <string_view>

/// The bytes of routing netlink messages, as the kernel sends them or as it never would.
namespace Halden::Tavro::TestSupport
{

template <typename Structure>
std::string bytesOf(Structure const& structure)
{
    return {reinterpret_cast<char const*>(&structure), sizeof(structure)};
}

inline std::string padded(std::string bytes)
{
    bytes.resize((bytes.size() + 3) / 4 * 4);
    return bytes;
}

/// The 4 or 16 bytes of an address.
inline std::string addressBytes(std::string const& text)
{
    in6_addr address{};
    if (inet_pton(AF_INET, text.c_str(), &address) == 1)
    {
        return bytesOf(address).substr(0, sizeof(in_addr));
    }
    return inet_pton(AF_INET6, text.c_str(), &address) == 1 ? bytesOf(address) : std::string();
}

inline std::string attribute(std::uint16_t type, std::string_view payload, std::uint16_t length)
{
    return padded(bytesOf(rtattr{length, type}).append(payload));
}

inline std::string attribute(std::uint16_t type, std::string_view payload)
{
    return attribute(type, payload, static_cast<std::uint16_t>(sizeof(rtattr) + payload.size()));
}

inline std::string local(std::string const& address)
{
    return attribute(IFA_LOCAL, addressBytes(address));
}

inline std::string message(std::uint16_t type, std::string const& body, std::uint32_t length)
{
    return padded(bytesOf(nlmsghdr{length, type, 0, 0, 0}) + body);
}

inline std::string message(std::uint16_t type, std::string const& body)
{
    return message(type, body, static_cast<std::uint32_t>(sizeof(nlmsghdr) + body.size()));
}

/// RTM_NEWADDR or RTM_DELADDR.
inline std::string addressMessage(std::uint16_t type, unsigned char family, std::string const& attributes)
{
    return message(type, bytesOf(ifaddrmsg{family, 24, 0, 0, 1}) + attributes);
}

inline std::string added(std::string const& address)
{
    bool const isIpv6 = address.find(':') != std::string::npos;
    return addressMessage(RTM_NEWADDR, isIpv6 ? AF_INET6 : AF_INET, local(address));
}

inline std::string deleted(std::string const& address)
{
    bool const isIpv6 = address.find(':') != std::string::npos;
    return addressMessage(RTM_DELADDR, isIpv6 ? AF_INET6 : AF_INET, local(address));
}

/// As the kernel reports a link-local address.
inline std::string addedWithoutLocal(std::string const& address)
{
    return addressMessage(RTM_NEWADDR, AF_INET6, attribute(IFA_ADDRESS, addressBytes(address)));
}

}
