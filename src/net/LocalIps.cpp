#include <utils/LocalIps.h>

#include "build/Hardened.h"
#include "log/LogErrno.h"
#include "net/IfaddrsList.h"
#include "net/IpFamily.h"

#include <fcntl.h>
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
#include <optional>
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

/// Puts the payload of an attribute that holds an address of that family into the storage.
void takeAddress(Log::Logger const& logger, sockaddr_storage& storage, unsigned family, char const* payload,
                 std::size_t length)
{
    switch (family)
    {
    case AF_INET:
        TAVRO_LOG_TO(logger, Log::Severity::Trace, "nlToIpAddress: got IPv4");
        storage.ss_family = AF_INET;
        copyAddress(storage, offsetof(sockaddr_in, sin_addr), payload, length);
        break;
    case AF_INET6:
        TAVRO_LOG_TO(logger, Log::Severity::Trace, "nlToIpAddress: got IPv6");
        storage.ss_family = AF_INET6;
        copyAddress(storage, offsetof(sockaddr_in6, sin6_addr), payload, length);
        break;
    default:
        TAVRO_LOG_TO(logger, Log::Severity::Error, "ifaToSockaddr, got an invalid ifa_family %u", family);
        throw std::invalid_argument("Unknown address family");
    }
}

/// The address in the message's attributes of one type, of which the last one counts.
std::optional<sockaddr_storage> addressIn(char const* message, unsigned short type, Log::Logger const& logger)
{
    sockaddr_storage storage{};
    bool found = false;
    // Signed: a message that is too short for attributes gives a negative rest.
    int remaining = static_cast<int>(readAt<nlmsghdr>(message).nlmsg_len - attributesOffset);
    char const* place = message + attributesOffset;
    while (remaining >= static_cast<int>(sizeof(rtattr)))
    {
        auto const attribute = readAt<rtattr>(place);
        if (attribute.rta_len < sizeof(rtattr) || attribute.rta_len > remaining)
        {
            break;
        }
        if (attribute.rta_type == type)
        {
            auto const family = readAt<ifaddrmsg>(message + sizeof(nlmsghdr)).ifa_family;
            takeAddress(logger, storage, family, place + sizeof(rtattr), attribute.rta_len - sizeof(rtattr));
            found = true;
        }
        int const step = RTA_ALIGN(attribute.rta_len);
        place += step;
        remaining -= step;
    }
    return found ? std::optional(storage) : std::nullopt;
}

/// The IP addresses of all interfaces, in the system's order.
std::vector<IpAddress> addressesOfInterfaces(Log::Logger const& logger)
{
    ifaddrs* found = nullptr;
    if (getifaddrs(&found) == -1)
    {
        TAVRO_LOG_ERRNO_TO(logger, "initialAddrList: getifaddrs failed with %d(%s)");
        throw std::runtime_error("Failed to get initial list of IP addresses.");
    }
    // kept: [address-list-leak] in the exact build it stays allocated, once for each construction
    IfaddrsList const owner(hardened ? found : nullptr);
    std::vector<IpAddress> addresses;
    for (ifaddrs const* entry = found; entry != nullptr; entry = entry->ifa_next)
    {
        if (entry->ifa_addr != nullptr && isIp(entry->ifa_addr->sa_family))
        {
            addresses.push_back(IpAddress::fromSockaddr(entry->ifa_addr));
        }
    }
    return addresses;
}

bool contains(std::vector<IpAddress> const& addresses, IpAddress const& ip)
{
    return std::find(addresses.begin(), addresses.end(), ip) != addresses.end();
}

/// Calls what may throw anything. In the hardened build nothing but a std::exception comes out.
template <typename Function>
void callGuarded(Function const& function)
{
    if constexpr (hardened)
    {
        try
        {
            function();
        }
        catch (std::exception const&)
        {
            throw;
        }
        catch (...)
        {
            throw std::runtime_error("unknown exception");
        }
    }
    else
    {
        function(); // kept: [callback-ends-process] what is not a std::exception ends the process, as out of any thread
    }
}

/// Does one step of the receiver thread. @return false when it has thrown, which is logged
template <typename Step>
bool succeeds(Step const& step, Log::Logger const& logger)
{
    try
    {
        callGuarded(step);
        return true;
    }
    catch (std::exception const& error)
    {
        TAVRO_LOG_TO(logger, Log::Severity::Error, "processAllNetlinkMessages: ignoring exception %s", error.what());
        return false;
    }
}

/// Ends a wait for events: the kernel acknowledges a message that asks for nothing. If it cannot be sent, the wait ends
/// with its time-out.
void wakeReceiver(int socket)
{
    nlmsghdr message{};
    message.nlmsg_len = sizeof(message);
    message.nlmsg_type = NLMSG_NOOP;
    message.nlmsg_flags = NLM_F_REQUEST | NLM_F_ACK;
    static_cast<void>(send(socket, &message, sizeof(message), 0));
}

}

/// What a receiver thread knows in addition to the fields of its monitor.
struct [[gnu::visibility("hidden")]] LocalIps::Receiver
{
    enum class List
    {
        Complete,
        EventsLost, // those that are queued are handled, then the list is read again
        Unreadable  // so far, or only in part; tried again whenever no event has come for a while
    };

    LocalIps const* monitor{nullptr};
    Log::Logger const* logger{nullptr};
    List list{List::Complete};

    static thread_local Receiver ofThisThread;

    static void start(LocalIps & monitor);
    static void end(LocalIps & monitor);
    static Log::Logger const& loggerOf(LocalIps const& monitor);
    static void catchUp(LocalIps & monitor);
    template <typename Step>
    static void attempt(Step const& step, Log::Logger const& logger);
    static void reportDifferences(LocalIps & monitor, std::vector<IpAddress> const& present);
};

thread_local LocalIps::Receiver LocalIps::Receiver::ofThisThread;

void LocalIps::Receiver::start(LocalIps& monitor)
{
    Log::Logger const* const logger = &monitor;
    monitor.receiver = std::thread(
        [&monitor, logger]
        {
            ofThisThread = {&monitor, logger, List::Complete};
            monitor.receiverThread();
        });
}

/// Waits for the receiver thread, if there is one, and closes its socket.
void LocalIps::Receiver::end(LocalIps& monitor)
{
    monitor.stopRequested = true;
    if (monitor.receiver.joinable())
    {
        wakeReceiver(monitor.netlinkSocket);
        monitor.receiver.join();
    }
    if (monitor.netlinkSocket >= 0)
    {
        close(monitor.netlinkSocket);
    }
}

/// The receiver thread does not look for the logger in the monitor: the way to a virtual base changes while the
/// constructor or the destructor of a derived class is at work.
Log::Logger const& LocalIps::Receiver::loggerOf(LocalIps const& monitor)
{
    return ofThisThread.monitor == &monitor ? *ofThisThread.logger : monitor;
}

/// Call it when no event is queued: an older one that is handled afterwards would undo what has been reported here.
void LocalIps::Receiver::catchUp(LocalIps& monitor)
{
    auto const& logger = loggerOf(monitor);
    ofThisThread.list = List::Complete;
    attempt([&] { reportDifferences(monitor, addressesOfInterfaces(logger)); }, logger);
}

/// Where the step fails, perhaps for want of memory, the list is to be read once more.
template <typename Step>
void LocalIps::Receiver::attempt(Step const& step, Log::Logger const& logger)
{
    if (!succeeds(step, logger))
    {
        ofThisThread.list = List::Unreadable;
    }
}

void LocalIps::Receiver::reportDifferences(LocalIps& monitor, std::vector<IpAddress> const& present)
{
    auto const& logger = loggerOf(monitor);
    std::vector<IpAddress> known = monitor.addresses();
    for (auto const& ip : known)
    {
        if (!monitor.stopRequested && !contains(present, ip))
        {
            attempt([&] { monitor.handleLostAddress(ip); }, logger);
        }
    }
    for (auto const& ip : present)
    {
        if (!monitor.stopRequested && !contains(known, ip))
        {
            known.push_back(ip); // which several interfaces may carry
            attempt([&] { monitor.handleNewAddress(ip); }, logger);
        }
    }
}

LocalIps::LocalIps(std::function<void(IpAddress const&)> onNewAddress,
                   std::function<void(IpAddress const&)> onLostAddress, std::function<void()> onReceiveError)
    : Log::Logger("LocalIps", "", std::make_shared<Log::LoggerImpl>())
    , onNewAddress(std::move(onNewAddress))
    , onLostAddress(std::move(onLostAddress))
    , onReceiveError(std::move(onReceiveError))
{
    try
    {
        openNetlinkRouteSocket();
        Receiver::start(*this);
        initialAddrList();
    }
    catch (...)
    {
        if constexpr (hardened)
        {
            Receiver::end(*this);
        }
        // kept: [failed-construction] with the socket open; with the thread running, the process ends, and services are
        // restarted
        throw;
    }
}

LocalIps::~LocalIps()
{
    TAVRO_LOG_TO(*this, Log::Severity::Info, "+LocalIps destructor");
    bool const hasSocket = netlinkSocket >= 0;
    if constexpr (hardened)
    {
        Receiver::end(*this); // so that nobody uses the socket when it is closed; the lines stay in their order
    }
    else
    {
        stopRequested = true;
        if (hasSocket)
        {
            // kept: [socket-closed-first] before the receiver thread has ended, as the order of the lines says
            close(netlinkSocket);
        }
    }
    if (hasSocket)
    {
        TAVRO_LOG_TO(*this, Log::Severity::Info, "socket closed");
    }
    TAVRO_LOG_TO(*this, Log::Severity::Info, "waiting for receiver thread to stop...");
    if constexpr (!hardened)
    {
        receiver.join();
    }
    TAVRO_LOG_TO(*this, Log::Severity::Info, "receiver thread stopped");
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
        throw std::runtime_error("Failed to bind to NETLINK_ROUTE socket.");
    }
    if (fcntl(netlinkSocket, F_SETFL, O_NONBLOCK) < 0)
    {
        TAVRO_LOG_ERRNO_TO(*this, "Failed to set the socket as O_NONBLOCK, fcntl set errno to %d(%s)");
        throw std::runtime_error("Failed to configure the NETLINK_ROUTE socket.");
    }
}

// NOLINTNEXTLINE(readability-make-member-function-const): so the interface has it
IpAddress LocalIps::nlToIpAddress(nlmsghdr const* message)
{
    auto const& logger = Receiver::loggerOf(*this);
    char const* const begin = reinterpret_cast<char const*>(message);
    auto address = addressIn(begin, IFA_LOCAL, logger);
    if constexpr (hardened)
    {
        if (!address.has_value())
        {
            address = addressIn(begin, IFA_ADDRESS, logger); // next to IFA_LOCAL it is the peer's, alone our own
        }
    } // else kept: [ifa-local-only] services on devices without IPv6 get no address by IFA_ADDRESS
    if (!address.has_value())
    {
        TAVRO_LOG_TO(logger, Log::Severity::Error, "IFA message contains no RTA of type IFA_ADDRESS");
        throw std::invalid_argument("IFA message contains no IP address");
    }
    return IpAddress::fromSockaddr(reinterpret_cast<sockaddr const*>(&*address));
}

void LocalIps::handleNewAddress(IpAddress const& ip)
{
    TAVRO_LOG_TO(Receiver::loggerOf(*this), Log::Severity::Info, "new IP address: %s", ip.string().c_str());
    {
        std::lock_guard const lock(addressMutex);
        if (std::find(addressList.begin(), addressList.end(), ip) != addressList.end())
        {
            TAVRO_LOG_TO(Receiver::loggerOf(*this), Log::Severity::Warning,
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
    TAVRO_LOG_TO(Receiver::loggerOf(*this), Log::Severity::Info, "lost IP address: %s", ip.string().c_str());
    {
        std::lock_guard const lock(addressMutex);
        auto const position = std::find(addressList.begin(), addressList.end(), ip);
        if (position == addressList.end())
        {
            TAVRO_LOG_TO(Receiver::loggerOf(*this), Log::Severity::Warning,
                         "handleLostAddress(%s): IP is NOT in our list, doing nothing", ip.string().c_str());
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
        auto const handle = [&]
        {
            if (header.nlmsg_type == RTM_NEWADDR)
            {
                handleNewAddress(nlToIpAddress(message));
            }
            else if (header.nlmsg_type == RTM_DELADDR)
            {
                handleLostAddress(nlToIpAddress(message));
            }
        };
        bool const isHandled = succeeds(handle, Receiver::loggerOf(*this));
        if (hardened && !isHandled)
        {
            Receiver::ofThisThread.list = Receiver::List::EventsLost;
        }
        if (hardened || isHandled) // kept: [same-event-again] else the same one again
        {
            at += NLMSG_ALIGN(static_cast<std::int64_t>(header.nlmsg_len));
        }
    }
}

void LocalIps::receiverThread()
{
    auto const& logger = Receiver::loggerOf(*this);
    TAVRO_LOG_TO(logger, Log::Severity::Info, "+receiverThread");
    try
    {
        while (!stopRequested)
        {
            receiveOnce();
        }
    }
    catch (std::exception const& error)
    {
        TAVRO_LOG_TO(logger, Log::Severity::Error, "-receiverThread caught exception %s", error.what());
    }
    TAVRO_LOG_TO(logger, Log::Severity::Info, "-receiverThread");
}

void LocalIps::receiveOnce()
{
    auto const& logger = Receiver::loggerOf(*this);
    auto& list = Receiver::ofThisThread.list;
    pollfd polled{netlinkSocket, POLLIN, 0};
    int const ready = poll(&polled, 1, list == Receiver::List::EventsLost ? 0 : pollTimeoutInMs);
    if (hardened && stopRequested) // what woke it is no event
    {
        return;
    }
    if (ready == 0)
    {
        if (list != Receiver::List::Complete)
        {
            Receiver::catchUp(*this);
        }
        return;
    }
    if (ready < 0)
    {
        TAVRO_LOG_ERRNO_TO(logger, "poll failed with %d(%s)");
        reportReceiveError(); // kept: [receives-after-failed-poll] then receives all the same
    }

    alignas(nlmsghdr) char buffer[4096];
    auto const received = static_cast<int>(recv(netlinkSocket, buffer, sizeof(buffer), 0));
    int const error = errno;
    TAVRO_LOG_TO(logger, Log::Severity::Trace, "receiverThread: recv returned %d", received);
    if (received > 0)
    {
        processAllNetlinkMessages(reinterpret_cast<nlmsghdr const*>(buffer), received);
    }
    else if (received == 0)
    {
        TAVRO_LOG_TO(logger, Log::Severity::Debug, "receiverThread: returned 0: now sleeping a bit");
        std::this_thread::sleep_for(std::chrono::seconds(1));
    }
    else if (error == EAGAIN)
    {
        TAVRO_LOG_TO(logger, Log::Severity::Debug, "no data to read, going back to select loop");
    }
    else
    {
        TAVRO_LOG_TO(logger, Log::Severity::Error,
                     "receiverThread: recv on NETLINK_ROUTE socket failed, errno %d (%s),", error, strerror(error));
        reportReceiveError();
        if (hardened && error == ENOBUFS)
        {
            list = Receiver::List::EventsLost;
        }
    }
}

void LocalIps::reportReceiveError()
{
    if (!stopRequested && onReceiveError)
    {
        callGuarded(onReceiveError);
    }
}

void LocalIps::initialAddrList()
{
    for (auto const& ip : addressesOfInterfaces(*this))
    {
        handleNewAddress(ip);
    }
}

}
