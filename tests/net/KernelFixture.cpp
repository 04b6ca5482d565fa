#include "net/KernelFixture.h"

#include <sys/socket.h>

#include <algorithm>

namespace Halden::Tavro::TestSupport
{

CallDouble<int(ifaddrs**)> getifaddrsDouble{"getifaddrs"};
CallDouble<int(pollfd*, nfds_t, int)> pollDouble{"poll"};

namespace
{

CallDouble<int(int, int, int)> socketDouble{"socket"};

}

void KernelFixture::resetDoubles()
{
    getifaddrsDouble.reset();
    pollDouble.reset();
    socketDouble.reset();
}

KernelFixture::KernelFixture()
{
    resetDoubles();
    // The last poll of the exact build finds the socket closed.
    capture.expect(isLine(Log::Severity::Error, "LocalIps",
                          "receiverThread: recv on NETLINK_ROUTE socket failed, errno 9 (Bad file descriptor),"));
}

KernelFixture::~KernelFixture()
{
    resetDoubles();
}

void KernelFixture::letSocketsHoldFewEvents()
{
    socketDouble.replace(
        [](int domain, int type, int protocol)
        {
            int const descriptor = socketDouble.passOn(domain, type, protocol);
            int const leastPossible = 0;
            if (domain == AF_NETLINK)
            {
                setsockopt(descriptor, SOL_SOCKET, SO_RCVBUF, &leastPossible, sizeof(leastPossible));
            }
            return descriptor;
        });
}

std::vector<std::string> systemAddresses()
{
    std::vector<std::string> texts;
    ifaddrs* list = nullptr;
    EXPECT_EQ(getifaddrs(&list), 0);
    for (ifaddrs const* entry = list; entry != nullptr; entry = entry->ifa_next)
    {
        if (entry->ifa_addr != nullptr &&
            (entry->ifa_addr->sa_family == AF_INET || entry->ifa_addr->sa_family == AF_INET6))
        {
            texts.push_back(Utils::IpAddress::fromSockaddr(entry->ifa_addr).string());
        }
    }
    freeifaddrs(list);
    std::sort(texts.begin(), texts.end());
    texts.erase(std::unique(texts.begin(), texts.end()), texts.end());
    return texts;
}

std::string numbered(char const* prefix, int number)
{
    return prefix + std::to_string(number / 256) + "." + std::to_string(number % 256);
}

}

using namespace Halden::Tavro::TestSupport;

extern "C"
{

    int getifaddrs(ifaddrs** list) noexcept
    {
        return getifaddrsDouble(list);
    }

    int poll(pollfd* polled, nfds_t count, int timeout)
    {
        return pollDouble(polled, count, timeout);
    }

    int socket(int domain, int type, int protocol) noexcept
    {
        return socketDouble(domain, type, protocol);
    }
}
