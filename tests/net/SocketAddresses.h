#pragma once

#include <utils/IpAddress.h>

#include <arpa/inet.h>

#include <array>
#include <cstdint>
#include <string>

/// Addresses as the system's functions give and take them.
namespace Halden::Tavro::TestSupport
{

inline sockaddr_storage v4(std::string const& text)
{
    sockaddr_storage storage{};
    auto* const address = reinterpret_cast<sockaddr_in*>(&storage);
    address->sin_family = AF_INET;
    inet_pton(AF_INET, text.c_str(), &address->sin_addr);
    return storage;
}

inline sockaddr_storage v6(std::string const& text, std::uint32_t scope = 0)
{
    sockaddr_storage storage{};
    auto* const address = reinterpret_cast<sockaddr_in6*>(&storage);
    address->sin6_family = AF_INET6;
    address->sin6_scope_id = scope;
    inet_pton(AF_INET6, text.c_str(), &address->sin6_addr);
    return storage;
}

inline std::string v4Text(sockaddr const* address)
{
    std::array<char, INET_ADDRSTRLEN> buffer{};
    return inet_ntop(AF_INET, &reinterpret_cast<sockaddr_in const*>(address)->sin_addr, buffer.data(), buffer.size());
}

inline Utils::IpAddress ip(sockaddr_storage const& storage)
{
    return Utils::IpAddress(reinterpret_cast<sockaddr const*>(&storage));
}

}
