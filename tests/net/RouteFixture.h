#pragma once

#include "support/CallDouble.h"
#include "support/LogCapture.h"

#include <gtest/gtest.h>

#include <netdb.h>
#include <sys/socket.h>

#include <deque>
#include <mutex>
#include <set>
#include <string>
#include <vector>

namespace Halden::Tavro::TestSupport
{

extern CallDouble<int(char const*, char const*, addrinfo const*, addrinfo**)> getaddrinfoDouble;
extern CallDouble<int(int, int, int)> socketDouble;
extern CallDouble<int(int, sockaddr const*, socklen_t)> connectDouble;
extern CallDouble<int(int, sockaddr*, socklen_t*)> getsocknameDouble;

/// A resolver that finds one address, and sockets that can be connected and then have the address 192.0.2.1.
///
/// For test programs that list net/RouteFixture.cpp among their sources.
class RouteFixture : public testing::Test
{
protected:
    RouteFixture();
    ~RouteFixture() override;

    /// Entries of the protocols 1, 2, 3 and so on, of which each has another type as well.
    void letResolverFind(std::vector<std::string> const& found);

    /// Lets the resolver be the system's again.
    void letResolverBeTheSystems();

    void setNextSocket(int descriptor);

    /// What was called since the last time, in the order of the calls, arguments with it.
    std::vector<std::string> takeCalls();

    /// The same without one of them, if it is there.
    std::vector<std::string> takeCallsBut(std::string const& call);

    static constexpr int firstSocket = 4711; // neither this nor what follows is a descriptor of the process

    LogCapture log;
    std::vector<addrinfo> entries;

private:
    void note(std::string const& call);
    int openSocket(int family, int type, int protocol);
    int closeSocket(int descriptor);

    std::deque<sockaddr_storage> addresses; // which stay where they are
    std::mutex mutex;                       // guards what follows
    int nextSocket{firstSocket};
    std::set<int> opened;
    std::vector<std::string> calls;
};

}
