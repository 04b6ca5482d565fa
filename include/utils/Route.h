#pragma once

#include <utils/Export.h>
#include <utils/IpAddress.h>

#include <cstdint>
#include <string>

/// Which of the device's addresses and interfaces are used.
///
/// Threads: all functions may be called from several at once.
namespace Halden::Tavro::Utils::Ip
{

/// The IPv4 address from which this device reaches a remote host: internalLocalIpForRemote(), hazards included, on a
/// thread of its own, or on the caller's where the system has no thread left.
///
/// The time-out limits nothing. It ends one wait, after which the result is waited for without limit, in the worst case
/// for as long as the system's resolver tries, see resolv.conf(5). A caller that must not block that long passes a
/// numeric address, or calls from a thread that may block.
///
/// @param remote  host name or numeric address
/// @param timeout in seconds
/// @throws std::runtime_error as internalLocalIpForRemote()
HALDEN_CPPUTILS_EXPORT std::string getLocalIpForRemote(std::string const& remote, std::uint32_t timeout);

/// The IPv4 address from which this device reaches a remote host, as dotted text.
///
/// Nothing is sent to the host: a datagram socket is connected to it, and the kernel has then chosen the local address,
/// see connect(2) and getsockname(2). A host name is looked up by the system's resolver, see getaddrinfo(3). IPv6 is
/// never considered, but the C library takes "::ffff:192.0.2.1" for the IPv4 address in it.
///
/// @throws std::runtime_error "getaddrinfo failed with " and the resolver's text, also for an IPv6 address;
///         "could not resolve IP or hostname" when there is no route; "failed to get local socket name, errno=" and the
///         number. None of them is logged
///
/// Hazards of the exact build:
/// - Every look-up that succeeds costs a descriptor: its socket stays open for good, and child processes inherit it.
///   One look-up a minute uses up a process's usual 1024 descriptors in some 17 hours. Keep the result until the
///   network changes, or look up in a child process that ends.
HALDEN_CPPUTILS_EXPORT std::string internalLocalIpForRemote(std::string const& remote);

/// The name of the interface that carries an address, see getifaddrs(3).
///
/// When several carry it, the last one in the system's list wins. The scope of an IPv6 address makes no difference: for
/// a link-local address, which every interface has, pass sockaddr_in6()->sin6_scope_id to if_indextoname(3) instead.
///
/// @throws std::invalid_argument "No network interface with expected IP address found."
/// @throws std::runtime_error "Failed to get details about IP address"
HALDEN_CPPUTILS_EXPORT std::string networkIfcNameForIp(IpAddress const& ip);

}
