#include <utils/Route.h>

#include "build/Hardened.h"
#include "log/LogErrno.h"
#include "net/AddrinfoList.h"
#include "net/IfaddrsList.h"
#include "net/IpFamily.h"

#include <arpa/inet.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <future>
#include <stdexcept>

namespace Halden::Tavro::Utils::Ip
{

namespace
{

AddrinfoList resolve(std::string const& remote)
{
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_DGRAM;
    addrinfo* list = nullptr;
    int const error = getaddrinfo(remote.c_str(), nullptr, &hints, &list);
    if (error != 0)
    {
        throw std::runtime_error(std::string("getaddrinfo failed with ") + gai_strerror(error));
    }
    return AddrinfoList(list);
}

/// @return a negative number when there is no route to the address
int connectedSocket(addrinfo const& remote)
{
    int const descriptor = socket(remote.ai_family, remote.ai_socktype, remote.ai_protocol);
    if (descriptor >= 0 && connect(descriptor, remote.ai_addr, remote.ai_addrlen) != 0)
    {
        close(descriptor);
        return -1;
    }
    return descriptor;
}

std::string localAddressOf(int descriptor)
{
    sockaddr_in local{};
    socklen_t length = sizeof(local);
    if (getsockname(descriptor, reinterpret_cast<sockaddr*>(&local), &length) != 0)
    {
        int const error = errno;
        close(descriptor);
        throw std::runtime_error("failed to get local socket name, errno=" + std::to_string(error));
    }
    if constexpr (hardened) // kept: [route-socket-left-open] else it stays open, for services that look up once
    {
        close(descriptor);
    }
    return inet_ntoa(local.sin_addr); // its buffer is the thread's own
}

/// @return the last name in the system's list, empty when no interface carries the address
std::string lastInterfaceWith(IpAddress const& ip)
{
    ifaddrs* found = nullptr;
    if (getifaddrs(&found) == -1)
    {
        TAVRO_LOG_ERRNO("networkIfcNameForIp: getifaddrs failed with %d(%s)");
        throw std::runtime_error("Failed to get details about IP address");
    }
    IfaddrsList const list(found);
    std::string name;
    for (ifaddrs const* entry = list.get(); entry != nullptr; entry = entry->ifa_next)
    {
        sockaddr const* const address = entry->ifa_addr;
        if (address != nullptr && isIp(address->sa_family) && IpAddress::fromSockaddr(address) == ip)
        {
            name = entry->ifa_name; // kept: [last-interface-wins] a later one replaces it
        }
    }
    return name;
}

}

std::string getLocalIpForRemote(std::string const& remote, std::uint32_t timeout)
{
    auto result = std::async([&remote] { return internalLocalIpForRemote(remote); });
    if (timeout != 0)
    {
        // kept: [timeout-bounds-nothing] whatever comes of it; does not wait for a deferred call
        result.wait_for(std::chrono::seconds(timeout));
    }
    return result.get();
}

std::string internalLocalIpForRemote(std::string const& remote)
{
    AddrinfoList const list = resolve(remote);
    for (addrinfo const* entry = list.get(); entry != nullptr; entry = entry->ai_next)
    {
        int const descriptor = connectedSocket(*entry);
        if (descriptor >= 0)
        {
            return localAddressOf(descriptor);
        }
    }
    throw std::runtime_error("could not resolve IP or hostname");
}

std::string networkIfcNameForIp(IpAddress const& ip)
{
    std::string name = lastInterfaceWith(ip);
    if (name.empty())
    {
        TAVRO_LOG(Log::Severity::Error, "Could not find any network interface with IP address %s assigned",
                  ip.string().c_str());
        throw std::invalid_argument("No network interface with expected IP address found.");
    }
    TAVRO_LOG(Log::Severity::Debug, "Found IP address %s on network interface %s", ip.string().c_str(), name.c_str());
    return name;
}

}
