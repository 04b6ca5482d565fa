#include <utils/LocalIps.h>

#include "log/LogErrno.h"
#include "net/IpFamily.h"

#include <fcntl.h>
#include <ifaddrs.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <exception>
#include <memory>
#include <stdexcept>
#include <utility>

namespace Halden::Tavro::Utils
{

namespace
{

constexpr std::size_t attributesOffset = sizeof(nlmsghdr) + sizeof(ifaddrmsg);
constexpr int pollTimeoutInMs = 1000;

/// A copy of the structure at that place, which need not be aligned for it.
template <typename Structure>
Structure readAt(char const* place)
{
    Structure structure{};
    std::memcpy(&structure, place, sizeof(structure));
    return structure;
}

/// Copies an address's bytes to their place in the storage, and never past its end.
void copyAddress(sockaddr_storage& storage, std::size_t offset, char const* bytes, std::size_t length)
{
    std::memcpy(reinterpret_cast<char*>(&storage) + offset, bytes, std::min(length, sizeof(storage) - offset));
}

}

LocalIps::LocalIps(std::function<void(IpAddress const&)> onNewAddress,
                   std::function<void(IpAddress const&)> onLostAddress, std::function<void()> onReceiveError)
    : Log::Logger("LocalIps", "", std::make_shared<Log::LoggerImpl>())
    , onNewAddress(std::move(onNewAddress))
    , onLostAddress(std::move(onLostAddress))
    , onReceiveError(std::move(onReceiveError))
{
    openNetlinkRouteSocket();
    receiver = std::thread(&LocalIps::receiverThread, this);
    initialAddrList();
}

LocalIps::~LocalIps()
{
    TAVRO_LOG_TO(*this, Log::Severity::Info, "+LocalIps destructor");
    stopRequested = true;
    if (netlinkSocket >= 0)
    {
        close(netlinkSocket);
        TAVRO_LOG_TO(*this, Log::Severity::Info, "socket closed");
    }
    if (receiver.joinable())
    {
        TAVRO_LOG_TO(*this, Log::Severity::Info, "waiting for receiver thread to stop...");
        receiver.join();
        TAVRO_LOG_TO(*this, Log::Severity::Info, "receiver thread stopped");
    }
}

std::vector<IpAddress> LocalIps::addresses()
{
    std::lock_guard const lock(addressMutex);
    return addressList;
}

void LocalIps::openNetlinkRouteSocket()
{
    netlinkSocket = socket(AF_NETLINK, SOCK_RAW, NETLINK_ROUTE);
    if (netlinkSocket < 0)
    {
        TAVRO_LOG_ERRNO_TO(*this, "Couldn't open NETLINK_ROUTE socket, errno=%d (%s)");
        throw std::runtime_error("Failed to open NETLINK_ROUTE socket.");
    }

    sockaddr_nl address{}; // port id 0: the kernel assigns one
    address.nl_family = AF_NETLINK;
    address.nl_groups = RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR;
    if (bind(netlinkSocket, reinterpret_cast<sockaddr const*>(&address), sizeof(address)) < 0)
    {
        TAVRO_LOG_ERRNO_TO(*this, "Failed to bind to NETLINK_ROUTE socket, errno=%d (%s)");
        throw std::runtime_error("Failed to bind to NETLINK_ROUTE socket."); // kept: the descriptor stays open
    }
    if (fcntl(netlinkSocket, F_SETFL, O_NONBLOCK) < 0)
    {
        TAVRO_LOG_ERRNO_TO(*this, "Failed to set the socket as O_NONBLOCK, fcntl set errno to %d(%s)");
        throw std::runtime_error("Failed to configure the NETLINK_ROUTE socket.");
    }
}

IpAddress LocalIps::nlToIpAddress(nlmsghdr const* message)
{
    char const* const begin = reinterpret_cast<char const*>(message);
    sockaddr_storage storage{};
    bool found = false;

    // Signed: a message that is too short for attributes gives a negative rest.
    int remaining = static_cast<int>(readAt<nlmsghdr>(begin).nlmsg_len - attributesOffset);
    char const* place = begin + attributesOffset;
    while (remaining >= static_cast<int>(sizeof(rtattr)))
    {
        auto const attribute = readAt<rtattr>(place);
        if (attribute.rta_len < sizeof(rtattr) || attribute.rta_len > remaining)
        {
            break;
        }
        if (attribute.rta_type == IFA_LOCAL) // kept: IFA_ADDRESS is not read, and the last of several counts
        {
            char const* const payload = place + sizeof(rtattr);
            std::size_t const length = attribute.rta_len - sizeof(rtattr);
            auto const family = readAt<ifaddrmsg>(begin + NLMSG_HDRLEN).ifa_family;
            switch (family)
            {
            case AF_INET:
                TAVRO_LOG_TO(*this, Log::Severity::Trace, "nlToIpAddress: got IPv4");
                storage.ss_family = AF_INET;
                copyAddress(storage, offsetof(sockaddr_in, sin_addr), payload, length);
                break;
            case AF_INET6:
                TAVRO_LOG_TO(*this, Log::Severity::Trace, "nlToIpAddress: got IPv6");
                storage.ss_family = AF_INET6;
                copyAddress(storage, offsetof(sockaddr_in6, sin6_addr), payload, length);
                break;
            default:
                TAVRO_LOG_TO(*this, Log::Severity::Error, "ifaToSockaddr, got an invalid ifa_family %u",
                             static_cast<unsigned>(family));
                throw std::invalid_argument("Unknown address family");
            }
            found = true;
        }
        int const step = RTA_ALIGN(attribute.rta_len);
        place += step;
        remaining -= step;
    }

    if (!found)
    {
        TAVRO_LOG_TO(*this, Log::Severity::Error, "IFA message contains no RTA of type IFA_ADDRESS");
        throw std::invalid_argument("IFA message contains no IP address");
    }
    return IpAddress::fromSockaddr(reinterpret_cast<sockaddr const*>(&storage));
}

void LocalIps::handleNewAddress(IpAddress const& ip)
{
    TAVRO_LOG_TO(*this, Log::Severity::Info, "new IP address: %s", ip.string().c_str());
    {
        std::lock_guard const lock(addressMutex);
        if (std::find(addressList.begin(), addressList.end(), ip) != addressList.end())
        {
            TAVRO_LOG_TO(*this, Log::Severity::Warning,
                         "handleNewAddress(%s): IP is already in our list, doing nothing", ip.string().c_str());
            return;
        }
        addressList.push_back(ip);
    }
    if (onNewAddress)
    {
        onNewAddress(ip);
    }
}

void LocalIps::handleLostAddress(IpAddress const& ip)
{
    TAVRO_LOG_TO(*this, Log::Severity::Info, "lost IP address: %s", ip.string().c_str());
    {
        std::lock_guard const lock(addressMutex);
        auto const position = std::find(addressList.begin(), addressList.end(), ip);
        if (position == addressList.end())
        {
            TAVRO_LOG_TO(*this, Log::Severity::Warning, "handleLostAddress(%s): IP is NOT in our list, doing nothing",
                         ip.string().c_str());
            return;
        }
        addressList.erase(position);
    }
    if (onLostAddress)
    {
        onLostAddress(ip);
    }
}

void LocalIps::processAllNetlinkMessages(nlmsghdr const* buffer, int length)
{
    char const* const begin = reinterpret_cast<char const*>(buffer);
    std::int64_t at = 0; // wider than the length: rounding up must not overflow
    while (length - at >= NLMSG_HDRLEN)
    {
        auto const header = readAt<nlmsghdr>(begin + at);
        if (header.nlmsg_len < NLMSG_HDRLEN || header.nlmsg_len > length - at || header.nlmsg_type == NLMSG_DONE)
        {
            return;
        }
        auto const* const message = reinterpret_cast<nlmsghdr const*>(begin + at);
        try
        {
            if (header.nlmsg_type == RTM_NEWADDR)
            {
                handleNewAddress(nlToIpAddress(message));
            }
            else if (header.nlmsg_type == RTM_DELADDR)
            {
                handleLostAddress(nlToIpAddress(message));
            }
            at += NLMSG_ALIGN(static_cast<std::int64_t>(header.nlmsg_len));
        }
        catch (std::exception const& error)
        {
            // kept: without a step, so that the same message is handled again
            TAVRO_LOG_TO(*this, Log::Severity::Error, "processAllNetlinkMessages: ignoring exception %s", error.what());
        }
    }
}

void LocalIps::receiverThread()
{
    TAVRO_LOG_TO(*this, Log::Severity::Info, "+receiverThread");
    try
    {
        while (!stopRequested)
        {
            receiveOnce();
        }
    }
    catch (std::exception const& error)
    {
        TAVRO_LOG_TO(*this, Log::Severity::Error, "-receiverThread caught exception %s", error.what());
    }
    TAVRO_LOG_TO(*this, Log::Severity::Info, "-receiverThread");
}

void LocalIps::receiveOnce()
{
    pollfd polled{netlinkSocket, POLLIN, 0};
    int const ready = poll(&polled, 1, pollTimeoutInMs);
    if (ready == 0)
    {
        return;
    }
    if (ready < 0)
    {
        TAVRO_LOG_ERRNO_TO(*this, "poll failed with %d(%s)");
        reportReceiveError(); // kept: then receives all the same
    }

    alignas(nlmsghdr) char buffer[4096];
    auto const received = static_cast<int>(recv(netlinkSocket, buffer, sizeof(buffer), 0));
    int const error = errno;
    TAVRO_LOG_TO(*this, Log::Severity::Trace, "receiverThread: recv returned %d", received);
    if (received > 0)
    {
        processAllNetlinkMessages(reinterpret_cast<nlmsghdr const*>(buffer), received);
    }
    else if (received == 0)
    {
        TAVRO_LOG_TO(*this, Log::Severity::Debug, "receiverThread: returned 0: now sleeping a bit");
        std::this_thread::sleep_for(std::chrono::seconds(1));
    }
    else if (error == EAGAIN)
    {
        TAVRO_LOG_TO(*this, Log::Severity::Debug, "no data to read, going back to select loop");
    }
    else
    {
        TAVRO_LOG_TO(*this, Log::Severity::Error, "receiverThread: recv on NETLINK_ROUTE socket failed, errno %d (%s),",
                     error, strerror(error));
        reportReceiveError();
    }
}

void LocalIps::reportReceiveError()
{
    if (!stopRequested && onReceiveError)
    {
        onReceiveError();
    }
}

void LocalIps::initialAddrList()
{
    ifaddrs* list = nullptr; // kept: never freed
    if (getifaddrs(&list) == -1)
    {
        TAVRO_LOG_ERRNO_TO(*this, "initialAddrList: getifaddrs failed with %d(%s)");
        throw std::runtime_error("Failed to get initial list of IP addresses.");
    }
    for (ifaddrs const* entry = list; entry != nullptr; entry = entry->ifa_next)
    {
        if (entry->ifa_addr != nullptr && isIp(entry->ifa_addr->sa_family))
        {
            handleNewAddress(IpAddress::fromSockaddr(entry->ifa_addr));
        }
    }
}

}
