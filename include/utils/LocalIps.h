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
///     LocalIps localIps([](IpAddress const& ip) { announce(ip); }, [](IpAddress const& ip) { withdraw(ip); },
///                       [] { askForRebuild(); });
///     for (IpAddress const& ip : localIps.addresses())
///
/// What services run into, each with the safe way:
///
/// - An address event without IFA_LOCAL is tried again without end, and the kernel sends most IPv6 addresses so: an
///   interface that comes up with a link-local address is enough. From then on the receiver thread uses up a core with
///   some 370,000 tries a second, each with two log lines at Error, no further event is seen, and the destructor does
///   not return. Construct it only where IPv6 was switched off before (net.ipv6.conf.all.disable_ipv6), or in a process
///   of its own that can be killed. IPv6 addresses that are there before do no harm until the kernel reports a change
///   of one, be it only of its lifetime.
/// - An address counts once, whichever interfaces carry it and with whichever scope id: carried by two interfaces, it
///   is gone after the first of them loses it. Ask getifaddrs(3) before giving it up.
/// - When the kernel cannot queue an event, onReceiveError is called (recv failed, ENOBUFS) and nothing is read again:
///   the list stays wrong until the object is destroyed and constructed anew. Do so on a thread of your own.
/// - A std::exception out of onNewAddress or onLostAddress after an event is logged; the event is then handled again,
///   which finds the list changed already and only logs that. One out of onReceiveError ends the receiver thread, and
///   the list is never updated again. Anything else that a callback throws there ends the process, and so does any
///   exception out of onNewAddress on the constructing thread. Let none escape.
/// - The destructor closes the socket before it waits for the receiver thread. A socket that another thread opens at
///   that moment may get the same number, and lose what one recv(2) takes from it. Open none meanwhile.
///
/// Threads: the constructor and the destructor belong to the owner, and never to a callback; addresses() may be called
/// from any thread, callbacks included. onNewAddress runs on the constructing thread for the addresses of the start;
/// everything else runs on the receiver thread, beside it already during construction. No lock is held during a call.
///
/// A class that derives from this one names Log::Logger among its own bases, and constructs it:
///
///     class Monitor : private virtual Log::Logger, public LocalIps
///
/// During the first and the last calls of the callbacks its own members are not there, and the thread sanitizer may
/// call the change of its virtual table a race; either table leads to the same logger.
class HALDEN_CPPUTILS_EXPORT LocalIps : private virtual Log::Logger
{
public:
    /// Calls onNewAddress for each address that is there, before it returns. Any of the callbacks may be empty.
    ///
    /// Keeps the result of getifaddrs(3) allocated, some kilobytes for each construction; and when it throws, the
    /// descriptor of the socket if it was opened. So construct it for good, and do not try again in a loop.
    ///
    /// When the addresses cannot be read after all that has succeeded, the process ends through std::terminate.
    ///
    /// @param onNewAddress   called after an address was added to the list
    /// @param onLostAddress  called after an address was removed from the list
    /// @param onReceiveError called when poll(2) or recv(2) on the socket fails
    /// @throws std::runtime_error "Failed to open NETLINK_ROUTE socket.", "Failed to bind to NETLINK_ROUTE socket." or
    ///         "Failed to configure the NETLINK_ROUTE socket."; what std::thread throws when it cannot be started
    LocalIps(std::function<void(IpAddress const&)> onNewAddress, std::function<void(IpAddress const&)> onLostAddress,
             std::function<void()> onReceiveError);

    LocalIps(LocalIps const&) = delete;
    LocalIps& operator=(LocalIps const&) = delete;

    /// Waits for the receiver thread: up to a second, two after the socket gave an empty answer. The thread mostly
    /// finds the socket closed and logs that its recv has failed with EBADF: an error line that means nothing.
    virtual ~LocalIps();

    /// A copy of the list, in order of arrival.
    std::vector<IpAddress> addresses();

protected:
    void openNetlinkRouteSocket();

    /// The address of an RTM_NEWADDR or RTM_DELADDR message. Of several IFA_LOCAL attributes the last one counts.
    ///
    /// @param message readable for nlmsg_len bytes, at any alignment
    /// @throws std::invalid_argument "IFA message contains no IP address" or "Unknown address family"
    IpAddress nlToIpAddress(nlmsghdr const* message);

    void handleNewAddress(IpAddress const& ip);
    void handleLostAddress(IpAddress const& ip);

    /// Handles all address messages of a buffer. One that throws a std::exception is handled again, without end.
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
