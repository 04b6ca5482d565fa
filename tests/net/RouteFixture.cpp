#include "net/RouteFixture.h"

#include "net/SocketAddresses.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <utility>

namespace Halden::Tavro::TestSupport
{

CallDouble<int(char const*, char const*, addrinfo const*, addrinfo**)> getaddrinfoDouble{"getaddrinfo"};
CallDouble<int(int, int, int)> socketDouble{"socket"};
CallDouble<int(int, sockaddr const*, socklen_t)> connectDouble{"connect"};
CallDouble<int(int, sockaddr*, socklen_t*)> getsocknameDouble{"getsockname"};

namespace
{

CallDouble<void(addrinfo*)> freeaddrinfoDouble{"freeaddrinfo"};
CallDouble<int(int)> closeDouble{"close"};

void resetDoubles()
{
    getaddrinfoDouble.reset();
    freeaddrinfoDouble.reset();
    socketDouble.reset();
    connectDouble.reset();
    getsocknameDouble.reset();
    closeDouble.reset();
}

}

RouteFixture::RouteFixture()
{
    resetDoubles();
    getaddrinfoDouble.replace(
        [this](char const*, char const*, addrinfo const*, addrinfo** list)
        {
            *list = entries.empty() ? nullptr : entries.data();
            return 0;
        });
    freeaddrinfoDouble.replace([this](addrinfo* list) { note("freeaddrinfo " + std::to_string(list->ai_protocol)); });
    socketDouble.replace([this](int family, int type, int protocol) { return openSocket(family, type, protocol); });
    connectDouble.replace(
        [this](int descriptor, sockaddr const* address, socklen_t length)
        {
            note("connect " + std::to_string(descriptor) + " " + v4Text(address) + " " + std::to_string(length));
            return 0;
        });
    getsocknameDouble.replace(
        [this](int descriptor, sockaddr* address, socklen_t* length)
        {
            note("getsockname " + std::to_string(descriptor) + " " + std::to_string(*length));
            auto const local = v4("192.0.2.1");
            std::memcpy(address, &local, *length);
            return 0;
        });
    closeDouble.replace([this](int descriptor) { return closeSocket(descriptor); });
    letResolverFind({"198.51.100.1"});
}

RouteFixture::~RouteFixture()
{
    resetDoubles();
}

void RouteFixture::letResolverFind(std::vector<std::string> const& found)
{
    addresses.clear();
    entries.assign(found.size(), {});
    for (std::size_t i = 0; i < found.size(); ++i)
    {
        addresses.push_back(v4(found[i]));
        entries[i].ai_family = AF_INET;
        entries[i].ai_socktype = static_cast<int>(i) + 11;
        entries[i].ai_protocol = static_cast<int>(i) + 1;
        entries[i].ai_addr = reinterpret_cast<sockaddr*>(&addresses.back());
        entries[i].ai_addrlen = static_cast<socklen_t>(16 + i);
        entries[i].ai_next = i + 1 < found.size() ? &entries[i + 1] : nullptr;
    }
}

void RouteFixture::letResolverBeTheSystems()
{
    getaddrinfoDouble.reset();
    freeaddrinfoDouble.reset();
}

void RouteFixture::setNextSocket(int descriptor)
{
    std::lock_guard const lock(mutex);
    nextSocket = descriptor;
}

std::vector<std::string> RouteFixture::takeCalls()
{
    std::lock_guard const lock(mutex);
    return std::exchange(calls, {});
}

std::vector<std::string> RouteFixture::takeCallsBut(std::string const& call)
{
    auto taken = takeCalls();
    auto const found = std::find(taken.begin(), taken.end(), call);
    if (found != taken.end())
    {
        taken.erase(found);
    }
    return taken;
}

void RouteFixture::note(std::string const& call)
{
    std::lock_guard const lock(mutex);
    calls.push_back(call);
}

int RouteFixture::openSocket(int family, int type, int protocol)
{
    note("socket " + std::to_string(family) + " " + std::to_string(type) + " " + std::to_string(protocol));
    std::lock_guard const lock(mutex);
    opened.insert(nextSocket);
    return nextSocket++;
}

int RouteFixture::closeSocket(int descriptor)
{
    {
        std::lock_guard const lock(mutex);
        if (opened.erase(descriptor) == 0)
        {
            return closeDouble.passOn(descriptor);
        }
    }
    note("close " + std::to_string(descriptor));
    errno = EIO;
    return -1;
}

}

using namespace Halden::Tavro::TestSupport;

extern "C"
{

    int getaddrinfo(char const* node, char const* service, addrinfo const* hints, addrinfo** list)
    {
        return getaddrinfoDouble(node, service, hints, list);
    }

    void freeaddrinfo(addrinfo* list) noexcept
    {
        freeaddrinfoDouble(list);
    }

    int socket(int family, int type, int protocol) noexcept
    {
        return socketDouble(family, type, protocol);
    }

    int connect(int descriptor, sockaddr const* address, socklen_t length)
    {
        return connectDouble(descriptor, address, length);
    }

    int getsockname(int descriptor, sockaddr* address, socklen_t* length) noexcept
    {
        return getsocknameDouble(descriptor, address, length);
    }

    int close(int descriptor)
    {
        return closeDouble(descriptor);
    }
}
