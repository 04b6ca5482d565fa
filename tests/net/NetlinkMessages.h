#pragma once

#include "support/NetlinkBytes.h"

#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <cstdint>
#include <string>

/// The bytes of routing netlink messages, as the kernel sends them or as it never would.
namespace Halden::Tavro::TestSupport
{

inline std::string local(std::string const& address)
{
    return attribute(IFA_LOCAL, addressBytes(address));
}

inline std::string message(std::uint16_t type, std::string const& body, std::uint32_t length)
{
    return padded(bytesOf(nlmsghdr{length, type, 0, 0, 0}) + body);
}

inline std::string message(std::uint16_t type, std::string const& body)
{
    return message(type, body, static_cast<std::uint32_t>(sizeof(nlmsghdr) + body.size()));
}

/// RTM_NEWADDR or RTM_DELADDR.
inline std::string addressMessage(std::uint16_t type, unsigned char family, std::string const& attributes)
{
    return message(type, bytesOf(ifaddrmsg{family, 24, 0, 0, 1}) + attributes);
}

inline std::string added(std::string const& address)
{
    return addressMessage(RTM_NEWADDR, familyOf(address), local(address));
}

inline std::string deleted(std::string const& address)
{
    return addressMessage(RTM_DELADDR, familyOf(address), local(address));
}

/// As the kernel reports a link-local address.
inline std::string addedWithoutLocal(std::string const& address)
{
    return addressMessage(RTM_NEWADDR, AF_INET6, attribute(IFA_ADDRESS, addressBytes(address)));
}

}
