#include "net/RouteKernelFixture.h"

#include "support/ChildProcess.h"

#include <net/if.h>
#include <sched.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>

namespace Halden::Tavro::TestSupport
{

namespace
{

constexpr int refused = 77;

/// Into an empty network that goes away with this process. @return false when the system does not allow it
bool enterEmptyNetwork()
{
    if (unshare(CLONE_NEWNET) == 0)
    {
        return true;
    }
    auto const user = geteuid();
    if (unshare(CLONE_NEWUSER | CLONE_NEWNET) != 0)
    {
        std::cerr << strerror(errno);
        return false;
    }
    std::ofstream("/proc/self/uid_map") << "0 " << user << " 1";
    return true;
}

/// Runs a command of ip(8).
void ip(std::string const& command)
{
    if (std::system(("ip " + command).c_str()) != 0)
    {
        ADD_FAILURE() << "ip " << command;
    }
}

void makeInterfaces()
{
    ip("link set lo up");
    ip("link add eth0 type veth peer name eth1");
    ip("address add 192.0.2.1/24 dev eth0");
    ip("address add 198.51.100.1/24 dev eth0");
    ip("address add 192.0.2.1/32 dev eth1");
    ip("address add fe80::1/64 dev eth0 nodad");
    ip("address add fe80::1/64 dev eth1 nodad");
    ip("link set eth0 up");
    ip("link set eth1 up");
}

std::vector<std::string> interfacesOfThisProcess()
{
    std::vector<std::string> names;
    auto* const all = if_nameindex();
    for (auto const* entry = all; entry->if_index != 0; ++entry)
    {
        names.emplace_back(entry->if_name);
    }
    if_freenameindex(all);
    return names;
}

}

RouteKernelFixture::RouteKernelFixture()
    : interfacesBefore(interfacesOfThisProcess())
{
}

RouteKernelFixture::~RouteKernelFixture()
{
    EXPECT_EQ(interfacesOfThisProcess(), interfacesBefore);
}

void RouteKernelFixture::runBesideInterfaces(std::function<void()> const& checks)
{
    auto const result = runInChild(
        [&checks]
        {
            if (!enterEmptyNetwork())
            {
                return refused;
            }
            makeInterfaces();
            checks();
            return HasFailure() ? 1 : 0;
        },
        std::chrono::minutes(1));
    if (result.exitCode == refused)
    {
        GTEST_SKIP() << "not allowed to make a network namespace: " << result.output;
    }
    EXPECT_EQ(result.exitCode, 0) << result.output;
}

}
