#include <utils/Bits.h>

#include <benchmark/benchmark.h>

#include <cstdint>

using namespace Halden::Tavro::Utils::Bits;

namespace
{

// Each beside shifts written by hand. The argument changes with every call, so that nothing moves out of the loop.

template <typename Function>
void repeat(benchmark::State& state, Function const& function)
{
    unsigned int raw = 0x00AB'CDEFU;
    for (auto _ : state)
    {
        benchmark::DoNotOptimize(raw);
        benchmark::DoNotOptimize(function(raw));
        raw += 0x0001'2345U;
    }
}

void bitmaskOfLibrary(benchmark::State& state)
{
    repeat(state, [](unsigned int raw) { return bitmask(raw % 33); });
}
BENCHMARK(bitmaskOfLibrary);

void bitmaskByHand(benchmark::State& state)
{
    repeat(state, [](unsigned int raw) { return static_cast<unsigned int>((std::uint64_t{1} << (raw % 33)) - 1); });
}
BENCHMARK(bitmaskByHand);

void twoComplementOfLibrary(benchmark::State& state)
{
    repeat(state, [](unsigned int raw) { return two_complement(static_cast<int>(raw), 12); });
}
BENCHMARK(twoComplementOfLibrary);

void twoComplementByHand(benchmark::State& state)
{
    repeat(state, [](unsigned int raw) { return raw & 0x0FFFU; });
}
BENCHMARK(twoComplementByHand);

void signed24OfLibrary(benchmark::State& state)
{
    repeat(state, [](unsigned int raw) { return signed24bto32b(raw); });
}
BENCHMARK(signed24OfLibrary);

void signed24ByHand(benchmark::State& state)
{
    repeat(state, [](unsigned int raw) { return static_cast<std::int32_t>(raw << 8U) >> 8; });
}
BENCHMARK(signed24ByHand);

void signed48OfLibrary(benchmark::State& state)
{
    repeat(state, [](unsigned int raw) { return signed48bto64b(raw * 0x0001'0003ULL); });
}
BENCHMARK(signed48OfLibrary);

void signed48ByHand(benchmark::State& state)
{
    repeat(state, [](unsigned int raw) { return static_cast<std::int64_t>((raw * 0x0001'0003ULL) << 16U) >> 16; });
}
BENCHMARK(signed48ByHand);

}
