#include <utils/IpAddress.h>

#include "support/AllocationCount.h"

#include <benchmark/benchmark.h>
#include <boost/asio/ip/address.hpp>

#include <arpa/inet.h>
#include <netdb.h>

#include <array>
#include <cstddef>
#include <stdexcept>
#include <string>

using namespace Halden::Tavro;

namespace
{

constexpr char const* textV4 = "192.168.117.254";
constexpr char const* textV6 = "2001:db8:117:254:8aed:c3ff:fe0b:2d6e";

struct Ours
{
    using Address = Utils::IpAddress;

    static Address parse(std::string const& text) { return Address::fromString(text); }
    static std::string print(Address const& address) { return address.string(); }
    static bool isV4(Address const& address) { return address.isv4(); }
    static bool isV6(Address const& address) { return address.isv6(); }
    static bool isLoopback(Address const& address) { return address.isLoopback(); }
};

struct Asio
{
    using Address = boost::asio::ip::address;

    static Address parse(std::string const& text) { return boost::asio::ip::make_address(text); }
    static std::string print(Address const& address) { return address.to_string(); }
    static bool isV4(Address const& address) { return address.is_v4(); }
    static bool isV6(Address const& address) { return address.is_v6(); }
    static bool isLoopback(Address const& address) { return address.is_loopback(); }
};

template <typename Function>
void repeat(benchmark::State& state, Function const& function)
{
    std::size_t const before = Bench::allocations();
    for (auto _ : state)
    {
        function();
    }
    state.counters["allocations"] =
        benchmark::Counter(static_cast<double>(Bench::allocations() - before), benchmark::Counter::kAvgIterations);
}

template <typename Kind>
void ipParse(benchmark::State& state, Kind /*kind*/, std::string const& text)
{
    repeat(state, [&] { benchmark::DoNotOptimize(Kind::parse(text)); });
}
BENCHMARK_CAPTURE(ipParse, OursV4, Ours(), textV4);
BENCHMARK_CAPTURE(ipParse, OursV6, Ours(), textV6);
BENCHMARK_CAPTURE(ipParse, AsioV4, Asio(), textV4);
BENCHMARK_CAPTURE(ipParse, AsioV6, Asio(), textV6);

/// The call that parsing has to make, and giving back what it found.
void ipGetaddrinfo(benchmark::State& state, std::string const& text)
{
    repeat(state,
           [&]
           {
               addrinfo hints{};
               hints.ai_flags = AI_NUMERICHOST;
               addrinfo* list = nullptr;
               if (getaddrinfo(text.c_str(), nullptr, &hints, &list) != 0)
               {
                   throw std::runtime_error("no address");
               }
               benchmark::DoNotOptimize(list);
               freeaddrinfo(list);
           });
}
BENCHMARK_CAPTURE(ipGetaddrinfo, V4, textV4);
BENCHMARK_CAPTURE(ipGetaddrinfo, V6, textV6);

void ipInetPton(benchmark::State& state, int family, std::string const& text)
{
    repeat(state,
           [&]
           {
               in6_addr address{};
               benchmark::DoNotOptimize(inet_pton(family, text.c_str(), &address));
               benchmark::DoNotOptimize(address);
           });
}
BENCHMARK_CAPTURE(ipInetPton, V4, AF_INET, textV4);
BENCHMARK_CAPTURE(ipInetPton, V6, AF_INET6, textV6);

template <typename Kind>
void ipPrint(benchmark::State& state, Kind /*kind*/, std::string const& text)
{
    auto const address = Kind::parse(text);
    repeat(state, [&] { benchmark::DoNotOptimize(Kind::print(address)); });
}
BENCHMARK_CAPTURE(ipPrint, OursV4, Ours(), textV4);
BENCHMARK_CAPTURE(ipPrint, OursV6, Ours(), textV6);
BENCHMARK_CAPTURE(ipPrint, AsioV4, Asio(), textV4);
BENCHMARK_CAPTURE(ipPrint, AsioV6, Asio(), textV6);

void ipInetNtop(benchmark::State& state, int family, std::string const& text)
{
    in6_addr address{};
    inet_pton(family, text.c_str(), &address);
    repeat(state,
           [&]
           {
               std::array<char, INET6_ADDRSTRLEN> buffer{};
               benchmark::DoNotOptimize(inet_ntop(family, &address, buffer.data(), buffer.size()));
               benchmark::DoNotOptimize(buffer);
           });
}
BENCHMARK_CAPTURE(ipInetNtop, V4, AF_INET, textV4);
BENCHMARK_CAPTURE(ipInetNtop, V6, AF_INET6, textV6);

/// What takes a few instructions is done 64 times, one after the other: neither a loop around it nor the place where
/// its code happens to lie must be all that is measured.
template <typename Address, typename Function>
void repeatOften(benchmark::State& state, Address const& address, Function const& function)
{
    benchmark::DoNotOptimize(&address);
    repeat(state,
           [&]
           {
#pragma GCC unroll 64
               for (int i = 0; i < 64; ++i)
               {
                   benchmark::ClobberMemory(); // so that nothing is known of the address
                   function(address);
               }
           });
}

template <typename Kind>
void ipCompare(benchmark::State& state, Kind /*kind*/, std::string const& text)
{
    auto const other = Kind::parse(text);
    benchmark::DoNotOptimize(&other);
    repeatOften(state, Kind::parse(text), [&](auto const& address) { benchmark::DoNotOptimize(address == other); });
}
BENCHMARK_CAPTURE(ipCompare, OursV4, Ours(), textV4);
BENCHMARK_CAPTURE(ipCompare, OursV6, Ours(), textV6);
BENCHMARK_CAPTURE(ipCompare, AsioV4, Asio(), textV4);
BENCHMARK_CAPTURE(ipCompare, AsioV6, Asio(), textV6);

template <typename Kind>
void ipFamily(benchmark::State& state, Kind /*kind*/, std::string const& text)
{
    repeatOften(state, Kind::parse(text),
                [](auto const& address)
                {
                    benchmark::DoNotOptimize(Kind::isV4(address));
                    benchmark::DoNotOptimize(Kind::isV6(address));
                });
}
BENCHMARK_CAPTURE(ipFamily, OursV4, Ours(), textV4);
BENCHMARK_CAPTURE(ipFamily, OursV6, Ours(), textV6);
BENCHMARK_CAPTURE(ipFamily, AsioV4, Asio(), textV4);
BENCHMARK_CAPTURE(ipFamily, AsioV6, Asio(), textV6);

template <typename Kind>
void ipLoopback(benchmark::State& state, Kind /*kind*/, std::string const& text)
{
    repeatOften(state, Kind::parse(text),
                [](auto const& address) { benchmark::DoNotOptimize(Kind::isLoopback(address)); });
}
BENCHMARK_CAPTURE(ipLoopback, OursV4, Ours(), "127.0.0.1");
BENCHMARK_CAPTURE(ipLoopback, OursV6, Ours(), "::1");
BENCHMARK_CAPTURE(ipLoopback, AsioV4, Asio(), "127.0.0.1");
BENCHMARK_CAPTURE(ipLoopback, AsioV6, Asio(), "::1");

template <typename Kind>
void ipCopy(benchmark::State& state, Kind /*kind*/, std::string const& text)
{
    repeatOften(state, Kind::parse(text),
                [](auto const& address)
                {
                    auto const copy = address;
                    benchmark::DoNotOptimize(&copy);
                });
}
BENCHMARK_CAPTURE(ipCopy, OursV4, Ours(), textV4);
BENCHMARK_CAPTURE(ipCopy, OursV6, Ours(), textV6);
BENCHMARK_CAPTURE(ipCopy, AsioV4, Asio(), textV4);
BENCHMARK_CAPTURE(ipCopy, AsioV6, Asio(), textV6);

/// What a copy of ours consists of.
void ipCopyStorage(benchmark::State& state)
{
    sockaddr_storage const storage{};
    benchmark::DoNotOptimize(&storage);
    repeatOften(state, storage,
                [](auto const& original)
                {
                    auto const copy = original;
                    benchmark::DoNotOptimize(&copy);
                });
}
BENCHMARK(ipCopyStorage);

}
