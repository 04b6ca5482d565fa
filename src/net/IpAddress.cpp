#include <utils/IpAddress.h>

#include "log/LogErrno.h"
#include "net/AddrinfoList.h"
#include "net/IpFamily.h"

#include <arpa/inet.h>

#include <array>
#include <cstddef>
#include <stdexcept>

namespace Halden::Tavro::Utils
{

namespace
{

/// The socket address, with zeros behind it.
///
/// Cleared in halves: for 64 bytes gcc makes plain stores, but for 128 an instruction that takes longer than the rest
/// of the construction.
sockaddr_storage stored(sockaddr const* address)
{
    sockaddr_storage storage; // NOLINT(cppcoreguidelines-pro-type-member-init): see above
    constexpr std::size_t half = sizeof(storage) / 2;
    auto* const bytes = reinterpret_cast<char*>(&storage);
    std::memset(bytes, 0, half);
    std::memset(bytes + half, 0, half);
    if (address->sa_family == AF_INET6)
    {
        std::memcpy(bytes, address, sizeof(sockaddr_in6));
    }
    else
    {
        std::memcpy(bytes, address, sizeof(sockaddr_in));
    }
    return storage;
}

}

IpAddress::IpAddress(::sockaddr const* address)
    : addr(stored(address))
{
    if (!isIp(addr.ss_family))
    {
        TAVRO_LOG(Log::Severity::Error, "IpAddress ctor got unsupported AI_FAMILY");
        throw std::invalid_argument("Invalid IP address family");
    }
}

IpAddress IpAddress::fromString(std::string const& text)
{
    addrinfo hints{};
    hints.ai_flags = AI_NUMERICHOST;
    addrinfo* found = nullptr;
    int const error = getaddrinfo(text.c_str(), nullptr, &hints, &found);
    if (error != 0)
    {
        TAVRO_LOG(Log::Severity::Error, "IpAddress::fromString(%s): getaddrinfo failed with %d (%s)", text.c_str(),
                  error, gai_strerror(error));
        throw std::invalid_argument("Failed to parse the IP address.");
    }
    AddrinfoList list(found);
    for (addrinfo const* entry = list.get(); entry != nullptr; entry = entry->ai_next)
    {
        if (isIp(entry->ai_family))
        {
            return IpAddress(entry->ai_addr);
        }
    }
    list.reset();
    TAVRO_LOG(Log::Severity::Error, "IpAddress::fromString(%s): no IP address found in getaddrinfo result",
              text.c_str());
    throw std::invalid_argument("Failed to parse the IP address.");
}

IpAddress IpAddress::fromSockaddr(::sockaddr const* address)
{
    if (address == nullptr)
    {
        TAVRO_LOG(Log::Severity::Error, "IpAddress::fromSockaddr got nullptr");
        throw std::invalid_argument("nullptr");
    }
    return IpAddress(address);
}

std::string IpAddress::string() const
{
    if (!isIp(addr.ss_family))
    {
        TAVRO_LOG(Log::Severity::Error, "Neither IPv4 nor IPv6: cannot convert to string");
        throw std::runtime_error("IP address is neither v4 nor v6: don't now how to convert it to string");
    }
    void const* const bytes = isv4() ? static_cast<void const*>(&sockaddr_in()->sin_addr)
                                     : static_cast<void const*>(&sockaddr_in6()->sin6_addr);
    std::array<char, INET6_ADDRSTRLEN> text{};
    if (inet_ntop(addr.ss_family, bytes, text.data(), text.size()) == nullptr)
    {
        TAVRO_LOG_ERRNO("inet_ntop failed with errno %d (%s)");
        throw std::runtime_error("IP address conversion to string failed.");
    }
    return text.data();
}

bool IpAddress::isLoopbackInOtherFamily() const
{
    TAVRO_LOG(Log::Severity::Error, "IP address is neither v4 nor v6, cannot test if it is a loopback.");
    return false;
}

bool IpAddress::equalsInOtherFamily() const
{
    TAVRO_LOG(Log::Severity::Error, "IpAddress::operator== unsupported address family: %u",
              static_cast<unsigned>(addr.ss_family));
    return false;
}

}
