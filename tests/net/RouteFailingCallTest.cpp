// What look-ups leave behind when one of their calls fails, in either build.

#include <utils/IpAddress.h>

#include "net/RouteFailingCallFixture.h"
#include "net/SocketAddresses.h"

#include <arpa/inet.h>
#include <ifaddrs.h>

#include <cerrno>
#include <stdexcept>
#include <string>

namespace Halden::Tavro::Utils
{

namespace
{

using namespace TestSupport;
using testing::IsEmpty;

CallDouble<int(ifaddrs**)> getifaddrsDouble{"getifaddrs"};
CallDouble<void(ifaddrs*)> freeifaddrsDouble{"freeifaddrs"};
CallDouble<char const*(int, void const*, char*, socklen_t)> inetNtopDouble{"inet_ntop"};

}

extern "C"
{

    int getifaddrs(ifaddrs** list) noexcept
    {
        return getifaddrsDouble(list);
    }

    void freeifaddrs(ifaddrs* list) noexcept
    {
        freeifaddrsDouble(list);
    }

    char const* inet_ntop(int family, void const* address, char* text, socklen_t size) noexcept
    {
        return inetNtopDouble(family, address, text, size);
    }
}

namespace
{

class RouteFailingCallTest : public RouteFailingCallFixture
{
protected:
    ~RouteFailingCallTest() override
    {
        getifaddrsDouble.reset();
        freeifaddrsDouble.reset();
    }

    std::string callsForgotten()
    {
        takeCalls();
        return "";
    }
};

TEST_F(RouteFailingCallTest, LookUpThatFailsLeavesNoSocketAndNoAddresses)
{
    auto const failures = {callsOf("getaddrinfo", getaddrinfoDouble, EAI_AGAIN, 0),
                           callsOf("getsockname", getsocknameDouble, -1, ENOBUFS)};

    EXPECT_THAT(leftByFailingCalls(failures, lookUp, [this] { return socketLeft(); }), IsEmpty());
}

TEST_F(RouteFailingCallTest, AddressThatCannotBeParsedLeavesNothing)
{
    EXPECT_THAT(leftByFailingCalls(
                    {callsOf("getaddrinfo", getaddrinfoDouble, EAI_MEMORY, 0)},
                    [] { IpAddress::fromString("192.0.2.1"); }, [this] { return callsForgotten(); }),
                IsEmpty());
}

TEST_F(RouteFailingCallTest, LookUpOnAThreadOfItsOwnThatFindsNoMemoryLeavesNothing)
{
    EXPECT_THAT(leftByFailingCalls({allocations()}, lookUpAside, [this] { return socketLeft(); }), IsEmpty());
}

TEST_F(RouteFailingCallTest, InterfaceThatCannotBeFoundLeavesNoList)
{
    sockaddr_storage address = v4("192.0.2.1");
    std::string name = "an interface whose name is longer than any short string";
    ifaddrs interface {
    };
    interface.ifa_name = name.data();
    interface.ifa_addr = reinterpret_cast<sockaddr*>(&address);
    int lists = 0;
    getifaddrsDouble.replace(
        [&](ifaddrs** list)
        {
            *list = &interface;
            ++lists;
            return 0;
        });
    freeifaddrsDouble.replace([&](ifaddrs* /*list*/) { --lists; });
    char const* const none = nullptr;

    EXPECT_THAT(leftByFailingCalls(
                    {callsOf("getifaddrs", getifaddrsDouble, -1, ENOMEM),
                     callsOf("inet_ntop", inetNtopDouble, none, ENOSPC), allocations()},
                    [&]
                    {
                        if (Ip::networkIfcNameForIp(IpAddress(interface.ifa_addr)) != name)
                        {
                            throw std::runtime_error("another interface");
                        }
                    },
                    [&] { return lists == 0 ? "" : "a list"; }),
                IsEmpty());
}

}

}
