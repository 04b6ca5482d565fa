#pragma once

#include <log/Logger.h>
#include <utils/Export.h>
#include <utils/IpAddress.h>

#include <atomic>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

struct nlmsghdr; // <linux/netlink.h>

namespace Halden::Tavro::Utils
{

/// The addresses that the device's own interfaces carry, kept up to date with what the kernel reports, rtnetlink(7).
///
///     LocalIps localIps([](IpAddress const& ip) { announce(ip); }, [](IpAddress const& ip) { withdraw(ip); }, {});
///     for (IpAddress const& ip : localIps.addresses())
///
/// Threads: each object has a receiver thread. onNewAddress runs on the constructing thread for the addresses of the
/// start; everything else runs on the receiver thread, beside it already during construction. No lock is held during a
/// call. addresses() may be called from any thread, callbacks included. The constructor and the destructor belong to
/// the owner: the destructor waits for the receiver thread, so a callback must never run it.
///
/// Callbacks should throw nothing. A std::exception out of an address callback is logged after an event; the list has
/// changed by then. One out of onReceiveError ends the receiver thread, and the list is never updated again.
///
/// Limits:
///
/// - An address counts once, whichever interfaces carry it and with whichever scope id. Carried by two interfaces, it
///   is gone after the first of them loses it: ask getifaddrs(3) before giving it up.
/// - An address that comes by an event has no scope id.
/// - The kernel reports an IPv6 address again when its state or its lifetime changes: a line at Warning, no call.
/// - An address that goes while the constructor reads the addresses may stay in the list.
///
/// A class that derives from this one names Log::Logger among its own bases, and constructs it:
///
///     class Monitor : private virtual Log::Logger, public LocalIps
///
/// During the first and the last calls of the callbacks its own members are not there.
///
/// Hazards of the exact build:
///
/// - An address event without IFA_LOCAL is tried again without end, and the kernel sends most IPv6 addresses so: an
///   interface that comes up with a link-local address is enough. The receiver thread then uses up a core, with some
///   hundred thousand lines at Error a second; no further event is seen, and the destructor does not return. Construct
///   it only where IPv6 was switched off before (net.ipv6.conf.all.disable_ipv6), or in a process that can be killed.
///   In the hardened build IFA_ADDRESS counts then, and what cannot be handled is logged once.
/// - An event whose callback throws is handled again, which finds the list changed and logs that. What is no
///   std::exception ends the process, and so does any exception out of onNewAddress during construction. In the
///   hardened build the next event is handled; out of the constructor, the exception reaches the caller.
/// - When the kernel loses events, onReceiveError is called (recv failed, ENOBUFS) and the list stays wrong. Construct
///   the object anew, on a thread of your own. The hardened build reads the addresses again and reports the
///   differences.
/// - The destructor closes the socket before it waits for the receiver thread. A socket that another thread opens at
///   that moment may get the same number, and lose what one recv(2) takes from it. Open none meanwhile. The thread
///   mostly logs at Error that its recv has failed with EBADF, which means nothing. The hardened build waits first.
/// - A construction that fails leaves the descriptor open; when the addresses cannot be read, it ends the process. One
///   that succeeds keeps the result of getifaddrs(3) allocated, some kilobytes. So construct it for good, and do not
///   try again in a loop.
class HALDEN_CPPUTILS_EXPORT LocalIps : private virtual Log::Logger
{
public:
    /// Calls onNewAddress for each address that is there, before it returns. Any of the callbacks may be empty.
    ///
    /// @param onNewAddress   called after an address was added to the list
    /// @param onLostAddress  called after an address was removed from the list
    /// @param onReceiveError called when poll(2) or recv(2) on the socket fails
    /// @throws std::runtime_error "Failed to open NETLINK_ROUTE socket.", "Failed to bind to NETLINK_ROUTE socket.",
    ///         "Failed to configure the NETLINK_ROUTE socket." or "Failed to get initial list of IP addresses."; what
    ///         std::thread throws when it cannot be started; what onNewAddress throws
    LocalIps(std::function<void(IpAddress const&)> onNewAddress, std::function<void(IpAddress const&)> onLostAddress,
             std::function<void()> onReceiveError);

    LocalIps(LocalIps const&) = delete;
    LocalIps& operator=(LocalIps const&) = delete;

    /// Waits for the receiver thread, and for a callback that it runs: up to a second, two after the socket gave an
    /// empty answer.
    virtual ~LocalIps();

    /// A copy of the list, in order of arrival.
    std::vector<IpAddress> addresses();

protected:
    void openNetlinkRouteSocket();

    /// The address of an RTM_NEWADDR or RTM_DELADDR message. Of several IFA_LOCAL attributes the last one counts, and
    /// in the hardened build, where there is none, the last IFA_ADDRESS.
    ///
    /// @param message readable for nlmsg_len bytes, at any alignment
    /// @throws std::invalid_argument "IFA message contains no IP address" or "Unknown address family"
    IpAddress nlToIpAddress(nlmsghdr const* message);

    void handleNewAddress(IpAddress const& ip);
    void handleLostAddress(IpAddress const& ip);

    /// Handles all address messages of a buffer. One that throws is logged, see above for what comes next.
    ///
    /// @param buffer readable for that many bytes, at any alignment
    void processAllNetlinkMessages(nlmsghdr const* buffer, int length);

    void receiverThread();
    void initialAddrList();

private:
    struct Receiver;

    void receiveOnce();
    void reportReceiveError();

    std::function<void(IpAddress const&)> onNewAddress;
    std::function<void(IpAddress const&)> onLostAddress;
    std::function<void()> onReceiveError;
    int netlinkSocket{-1};
    std::atomic<bool> stopRequested{false};
    std::thread receiver;
    std::mutex addressMutex;            // not held during callbacks
    std::vector<IpAddress> addressList; // guarded by addressMutex; no two are equal
};

}
