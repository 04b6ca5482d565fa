// How long it takes from the change of an address until somebody who follows the addresses knows.

#include "support/NetworkNamespace.h"

#include <utils/LocalIps.h>

#include <benchmark/benchmark.h>

#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <thread>
#include <vector>

using namespace Halden::Tavro;
using std::chrono::steady_clock;

namespace
{

constexpr int changes = 2000;

/// When a change was noticed.
class Notice
{
public:
    void give()
    {
        auto const now = steady_clock::now();
        std::lock_guard const lock(mutex);
        at = now;
        given.notify_one();
    }

    steady_clock::time_point take()
    {
        std::unique_lock lock(mutex);
        given.wait(lock, [this] { return at.has_value(); });
        auto const result = *at;
        at.reset();
        return result;
    }

private:
    std::mutex mutex;
    std::condition_variable given;
    std::optional<steady_clock::time_point> at; // guarded by mutex
};

class ThroughLibrary
{
public:
    explicit ThroughLibrary(Notice& notice)
        : localIps([this, &notice](auto const& /*ip*/) { started ? notice.give() : void(); },
                   [&notice](auto const& /*ip*/) { notice.give(); }, {})
    {
        started = true;
    }

private:
    std::atomic<bool> started{false}; // the addresses of the start are no changes
    Utils::LocalIps localIps;
};

/// No more than a socket, poll and recv.
class ThroughBareLoop
{
public:
    explicit ThroughBareLoop(Notice& notice)
        : descriptor(socket(AF_NETLINK, SOCK_RAW | SOCK_NONBLOCK, NETLINK_ROUTE))
    {
        sockaddr_nl address{};
        address.nl_family = AF_NETLINK;
        address.nl_groups = RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR;
        if (bind(descriptor, reinterpret_cast<sockaddr const*>(&address), sizeof(address)) != 0)
        {
            throw std::runtime_error("cannot follow the addresses");
        }
        thread = std::thread([this, &notice] { run(notice); });
    }

    ThroughBareLoop(ThroughBareLoop const&) = delete;
    ThroughBareLoop& operator=(ThroughBareLoop const&) = delete;

    ~ThroughBareLoop()
    {
        stop = true;
        thread.join();
        close(descriptor);
    }

private:
    void run(Notice& notice)
    {
        alignas(nlmsghdr) char buffer[4096];
        while (!stop)
        {
            pollfd polled{descriptor, POLLIN, 0};
            if (poll(&polled, 1, 1000) > 0 && recv(descriptor, buffer, sizeof(buffer), 0) > 0)
            {
                notice.give();
            }
        }
    }

    int const descriptor;
    std::atomic<bool> stop{false};
    std::thread thread;
};

template <typename Follower>
std::vector<double> delays()
{
    Notice notice;
    Follower const follower(notice);
    TestSupport::NetworkControl control;
    std::vector<double> result;
    for (int i = 0; i < changes; ++i)
    {
        auto const start = steady_clock::now();
        i % 2 == 0 ? control.addAddress("lo", "10.0.0.1") : control.removeAddress("lo", "10.0.0.1");
        result.push_back(std::chrono::duration<double, std::nano>(notice.take() - start).count());
    }
    return result;
}

template <typename Follower>
void addressChange(benchmark::State& state)
{
    if (auto const refusal = TestSupport::networkNamespaceRefusal())
    {
        state.SkipWithError(refusal->c_str());
    }
    for (auto _ : state)
    {
        TestSupport::inNetworkNamespace(
            [&state]
            {
                auto all = delays<Follower>();
                std::sort(all.begin(), all.end());
                state.counters["median"] = all[all.size() / 2];
            });
    }
}
BENCHMARK_TEMPLATE(addressChange, ThroughLibrary)->Iterations(1)->Repetitions(5)->UseRealTime();
BENCHMARK_TEMPLATE(addressChange, ThroughBareLoop)->Iterations(1)->Repetitions(5)->UseRealTime();

}
