#include "support/NetworkNamespace.h"

#include "support/NetlinkBytes.h"

#include <linux/if_addr.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <exception>
#include <fstream>
#include <stdexcept>
#include <thread>

namespace Halden::Tavro::TestSupport
{

namespace
{

int indexOf(std::string const& interface)
{
    unsigned const index = if_nametoindex(interface.c_str());
    if (index == 0)
    {
        throw std::invalid_argument("no interface: " + interface);
    }
    return static_cast<int>(index);
}

void prepareNamespace()
{
    if (unshare(CLONE_NEWNET) != 0)
    {
        throw std::runtime_error(std::string("no network namespace: ") + strerror(errno));
    }
    // Whatever the machine's own network has: IPv6, but no link-local addresses.
    for (std::string const interfaces : {"default", "lo"})
    {
        std::ofstream("/proc/sys/net/ipv6/conf/" + interfaces + "/disable_ipv6") << 0 << std::flush;
    }
    std::ofstream("/proc/sys/net/ipv6/conf/default/addr_gen_mode") << 1 << std::flush;
    NetworkControl().setUp("lo");
    std::string address;
    if (!(std::ifstream("/proc/thread-self/net/if_inet6") >> address))
    {
        throw std::runtime_error("no IPv6 in a network namespace");
    }
}

}

std::optional<std::string> networkNamespaceRefusal()
{
    std::optional<std::string> refusal;
    std::thread(
        [&refusal]
        {
            try
            {
                prepareNamespace();
            }
            catch (std::exception const& error)
            {
                refusal = error.what();
            }
        })
        .join();
    return refusal;
}

std::optional<std::string> loopbackRefusal()
{
    ifreq query{};
    query.ifr_name[0] = 'l';
    query.ifr_name[1] = 'o';
    int const descriptor = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    bool const known = descriptor >= 0 && ioctl(descriptor, SIOCGIFFLAGS, &query) == 0;
    close(descriptor);
    if (known && (query.ifr_flags & IFF_UP) != 0)
    {
        return std::nullopt;
    }
    return "the interface lo is down";
}

void inNetworkNamespace(std::function<void()> const& piece)
{
    std::exception_ptr error;
    std::thread(
        [&]
        {
            try
            {
                prepareNamespace();
                piece();
            }
            catch (...)
            {
                error = std::current_exception();
            }
        })
        .join();
    if (error)
    {
        std::rethrow_exception(error);
    }
}

NetworkControl::NetworkControl()
    : descriptor(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE))
{
    if (descriptor < 0)
    {
        throw std::runtime_error(std::string("no netlink socket: ") + strerror(errno));
    }
}

NetworkControl::~NetworkControl()
{
    close(descriptor);
}

void NetworkControl::addAddress(std::string const& interface, std::string const& address, std::string const& peer)
{
    changeAddress(RTM_NEWADDR, NLM_F_CREATE | NLM_F_EXCL, interface, address, peer);
}

void NetworkControl::removeAddress(std::string const& interface, std::string const& address, std::string const& peer)
{
    changeAddress(RTM_DELADDR, 0, interface, address, peer);
}

void NetworkControl::addInterface(std::string const& name, std::string const& kind)
{
    request(RTM_NEWLINK, NLM_F_CREATE | NLM_F_EXCL,
            bytesOf(ifinfomsg{}) + attribute(IFLA_IFNAME, name) +
                attribute(IFLA_LINKINFO, attribute(IFLA_INFO_KIND, kind)));
}

void NetworkControl::setUp(std::string const& interface)
{
    setFlags(interface, IFF_UP);
}

void NetworkControl::setDown(std::string const& interface)
{
    setFlags(interface, 0);
}

void NetworkControl::setFlags(std::string const& interface, unsigned flags)
{
    ifinfomsg body{};
    body.ifi_index = indexOf(interface);
    body.ifi_flags = flags;
    body.ifi_change = IFF_UP;
    request(RTM_NEWLINK, 0, bytesOf(body));
}

void NetworkControl::changeAddress(std::uint16_t type, std::uint16_t flags, std::string const& interface,
                                   std::string const& address, std::string const& peer)
{
    ifaddrmsg body{};
    body.ifa_family = familyOf(address);
    body.ifa_prefixlen = body.ifa_family == AF_INET ? 32 : 128;
    body.ifa_flags = IFA_F_NODAD; // an IPv6 address is reported once, and not again when it has proved unique
    body.ifa_index = static_cast<unsigned>(indexOf(interface));
    auto const local = addressBytes(address);
    request(type, flags,
            bytesOf(body) + attribute(IFA_LOCAL, local) +
                attribute(IFA_ADDRESS, peer.empty() ? local : addressBytes(peer)));
}

void NetworkControl::request(std::uint16_t type, std::uint16_t flags, std::string const& body)
{
    nlmsghdr header{};
    header.nlmsg_len = static_cast<std::uint32_t>(sizeof(header) + body.size());
    header.nlmsg_type = type;
    header.nlmsg_flags = static_cast<std::uint16_t>(NLM_F_REQUEST | NLM_F_ACK | flags);
    header.nlmsg_seq = ++sequence;
    auto const bytes = bytesOf(header) + body;

    struct
    {
        nlmsghdr header;
        nlmsgerr error;
    } answer{};
    bool const answered = send(descriptor, bytes.data(), bytes.size(), 0) >= 0 &&
                          recv(descriptor, &answer, sizeof(answer), 0) >= static_cast<ssize_t>(sizeof(answer)) &&
                          answer.header.nlmsg_type == NLMSG_ERROR;
    if (!answered || answer.error.error != 0)
    {
        throw std::runtime_error(std::string("the kernel refuses: ") +
                                 strerror(answered ? -answer.error.error : errno));
    }
}

}
