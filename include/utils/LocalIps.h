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

/// The addresses of the device's own interfaces, kept up to date by the kernel's reports, rtnetlink(7).
///
///     LocalIps localIps([](IpAddress const& ip) { announce(ip); }, // at once for each that is there
///                       [](IpAddress const& ip) { withdraw(ip); },
///                       {});
///     std::vector<IpAddress> const now = localIps.addresses();
///
/// | Callback       | Called when                         | On                                                  |
/// |----------------|-------------------------------------|-----------------------------------------------------|
/// | onNewAddress   | an address has come into the list   | the receiver thread; at first, the constructing one |
/// | onLostAddress  | an address has left the list        | the receiver thread                                 |
/// | onReceiveError | poll(2) or recv(2) on its socket fails | the receiver thread                              |
///
/// Threads: each object has a receiver thread, which may call back while the constructor still runs. The initial
/// addresses are reported on the constructing thread. No lock is held during a call. addresses() may be called from any
/// thread, callbacks included. Constructor and destructor belong to the owner. The destructor waits for the receiver
/// thread, so it must never run in a callback.
///
/// Callbacks should throw nothing. A std::exception out of an address callback is logged, after the list has changed.
/// One out of onReceiveError ends the receiver thread: the list is never updated again.
///
/// Limits:
/// - An address counts once, whichever interfaces carry it and with whichever scope id. Where two carry it, it is gone
///   when the first of them loses it: ask getifaddrs(3) before giving it up.
/// - An address that comes with an event has no scope id.
/// - The kernel reports an IPv6 address again when its state or its lifetime changes. That is a line at Warning and no
///   call.
/// - An address that goes while the constructor reads the initial ones may stay in the list.
///
/// A derived class names Log::Logger among its own bases, and constructs it:
///
///     class Monitor : private virtual Log::Logger, public LocalIps
///     {
///     public:
///         Monitor()
///             : Log::Logger("LocalIps", "", std::make_shared<Log::LoggerImpl>())
///             , LocalIps(announce, withdraw, {})
///         {
///         }
///     };
///
/// Its own members do not exist yet during the first calls of the callbacks, and no longer during the last.
///
/// Hazards of the exact build:
/// - An address event without IFA_LOCAL is handled again and again, and the kernel sends most IPv6 addresses that way:
///   an interface that gets its link-local address is enough. The receiver thread then takes a whole core and logs some
///   hundred thousand lines at Error a second, no later event is handled, and the destructor does not return. Use the
///   class only where IPv6 is switched off (net.ipv6.conf.all.disable_ipv6), or in a process that can be killed. The
///   hardened build takes IFA_ADDRESS instead, and logs once what it cannot handle.
/// - An event whose callback throws is handled again: it finds the list changed already, and says so in the log. A
///   callback that throws anything but a std::exception ends the process, and so does any exception out of onNewAddress
///   during construction. The hardened build goes on to the next event, then reads the addresses again and reports what
///   differs; it passes an exception during construction to the caller.
/// - When the kernel loses events, recv fails with ENOBUFS: onReceiveError is called, and the list stays wrong. Replace
///   the object by a new one, on a thread of your own. The hardened build reads the addresses again as well.
/// - The destructor closes the socket before it waits for the receiver thread. A socket that another thread opens at
///   that moment may get the same number, and loses what one recv(2) takes from it: open none meanwhile. As a rule the
///   receiver thread logs at Error that recv failed with EBADF, which means nothing. The hardened build waits first.
/// - A construction that fails leaves its descriptor open, or ends the process when it cannot read the addresses. One
///   that succeeds leaves the result of getifaddrs(3) allocated, some kilobytes. So construct the object once, and do
///   not retry in a loop.
class HALDEN_CPPUTILS_EXPORT LocalIps : private virtual Log::Logger
{
public:
    /// Calls onNewAddress for each initial address before it returns. Any callback may be empty.
    ///
    /// @param onNewAddress   called after an address was added to the list
    /// @param onLostAddress  called after an address was removed from the list
    /// @param onReceiveError called when poll(2) or recv(2) on the socket fails
    /// @throws std::runtime_error "Failed to open NETLINK_ROUTE socket.", "Failed to bind to NETLINK_ROUTE socket.",
    ///         "Failed to configure the NETLINK_ROUTE socket." or "Failed to get initial list of IP addresses."; what
    ///         std::thread throws when it cannot be started; in the hardened build, what onNewAddress throws
    LocalIps(std::function<void(IpAddress const&)> onNewAddress, std::function<void(IpAddress const&)> onLostAddress,
             std::function<void()> onReceiveError);

    LocalIps(LocalIps const&) = delete;
    LocalIps& operator=(LocalIps const&) = delete;

    /// Waits for the receiver thread, and so for a callback that it runs. The thread itself takes up to a second, or
    /// two after the socket gave an empty answer.
    virtual ~LocalIps();

    /// A copy of the list, in order of arrival.
    std::vector<IpAddress> addresses();

protected:
    /// Opens the socket, binds it to the address events of both families, and makes it non-blocking.
    void openNetlinkRouteSocket();

    /// The address of an RTM_NEWADDR or RTM_DELADDR message. Of several IFA_LOCAL attributes the last one counts, and
    /// in the hardened build, where there is none, the last IFA_ADDRESS.
    ///
    /// @param message readable for nlmsg_len bytes, at any alignment
    /// @throws std::invalid_argument "IFA message contains no IP address" or "Unknown address family"
    IpAddress nlToIpAddress(nlmsghdr const* message);

    /// Adds the address to the list and calls onNewAddress, unless the list has it already.
    void handleNewAddress(IpAddress const& ip);

    /// Removes the address from the list and calls onLostAddress, unless the list does not have it.
    void handleLostAddress(IpAddress const& ip);

    /// Handles all address messages of a buffer. A message that throws is logged; then the exact build handles it
    /// again, and the hardened build goes on to the next one.
    ///
    /// @param buffer may have any alignment
    /// @param length of the buffer in bytes
    void processAllNetlinkMessages(nlmsghdr const* buffer, int length);

    /// Handles what the socket receives until the destructor asks for the end.
    void receiverThread();

    /// Fills the list from getifaddrs(3).
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
