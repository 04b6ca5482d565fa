#pragma once

#include <utils/Route.h>

#include "net/RouteFixture.h"
#include "scheduling/ThreadDoubles.h"
#include "support/FailingCalls.h"

#include <gmock/gmock.h>

#include <unistd.h>

#include <cerrno>
#include <stdexcept>
#include <string>

namespace Halden::Tavro::TestSupport
{

/// A host with two addresses, looked up with calls that fail.
class RouteFailingCallFixture : public RouteFixture
{
protected:
    RouteFailingCallFixture()
    {
        letResolverFind({"198.51.100.1", "198.51.100.2"});
        setNextSocket(firstSocket);
        pthreadCreate.reset();
    }

    ~RouteFailingCallFixture() override { pthreadCreate.reset(); }

    /// Both addresses of a host are tried.
    static void lookUp()
    {
        if (Utils::Ip::internalLocalIpForRemote("a host whose name is longer than any short string") != "192.0.2.1")
        {
            throw std::runtime_error("another address");
        }
    }

    static void lookUpAside()
    {
        if (Utils::Ip::getLocalIpForRemote("a host whose name is longer than any short string", 5) != "192.0.2.1")
        {
            throw std::runtime_error("another address");
        }
    }

    /// Forgets the calls; a socket that is open still is closed.
    std::string socketLeft()
    {
        errno = 0;
        bool const wasOpen = close(firstSocket) == -1 && errno == EIO; // as the fixture answers for its own
        bool const otherWasOpen = close(firstSocket + 1) == -1 && errno == EIO;
        setNextSocket(firstSocket);
        takeCalls();
        return wasOpen || otherWasOpen ? "a socket" : "";
    }
};

}
