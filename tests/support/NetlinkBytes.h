#pragma once

#include <arpa/inet.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>

/// What routing netlink messages are made of, rtnetlink(7).
namespace Halden::Tavro::TestSupport
{

template <typename Structure>
std::string bytesOf(Structure const& structure)
{
    return {reinterpret_cast<char const*>(&structure), sizeof(structure)};
}

inline std::string padded(std::string bytes)
{
    bytes.resize(RTA_ALIGN(bytes.size()));
    return bytes;
}

/// AF_INET or AF_INET6, by how the address is written.
inline unsigned char familyOf(std::string const& address)
{
    return address.find(':') == std::string::npos ? AF_INET : AF_INET6;
}

/// The 4 or 16 bytes of an address.
inline std::string addressBytes(std::string const& address)
{
    int const family = familyOf(address);
    std::string bytes(family == AF_INET ? sizeof(in_addr) : sizeof(in6_addr), '\0');
    if (inet_pton(family, address.c_str(), bytes.data()) != 1)
    {
        throw std::invalid_argument("no address: " + address);
    }
    return bytes;
}

/// @param length what its header says
inline std::string attribute(std::uint16_t type, std::string_view payload, std::uint16_t length)
{
    return padded(bytesOf(rtattr{length, type}).append(payload));
}

inline std::string attribute(std::uint16_t type, std::string_view payload)
{
    return attribute(type, payload, static_cast<std::uint16_t>(sizeof(rtattr) + payload.size()));
}

}
