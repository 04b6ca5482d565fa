#include <utils/TimeText.h>

#include <benchmark/benchmark.h>

#include <array>
#include <chrono>
#include <cstdlib>
#include <ctime>
#include <optional>
#include <string>

using namespace Halden::Tavro::Utils;

namespace
{

/// TZ as the benchmark wants it, null for unset; what it was before comes back.
class Zone
{
public:
    explicit Zone(char const* zone)
    {
        if (char const* const before = std::getenv("TZ"))
        {
            zoneBefore = before;
        }
        set(zone);
    }

    ~Zone() { set(zoneBefore.has_value() ? zoneBefore->c_str() : nullptr); }

    Zone(Zone const&) = delete;
    Zone& operator=(Zone const&) = delete;

private:
    static void set(char const* zone)
    {
        if (zone != nullptr)
        {
            setenv("TZ", zone, 1);
        }
        else
        {
            unsetenv("TZ");
        }
    }

    std::optional<std::string> zoneBefore;
};

std::chrono::system_clock::time_point const moment{std::chrono::milliseconds(1709622489045)};

void timeText(benchmark::State& state, char const* zone)
{
    Zone const set(zone);
    for (auto _ : state)
    {
        benchmark::DoNotOptimize(toUtcString(moment));
    }
}
BENCHMARK_CAPTURE(timeText, TzSet, "UTC0");
BENCHMARK_CAPTURE(timeText, TzUnset, nullptr);

/// The same break-down, without the milliseconds.
void timeTextStrftime(benchmark::State& state, char const* zone)
{
    Zone const set(zone);
    std::time_t const second = std::chrono::system_clock::to_time_t(moment);
    for (auto _ : state)
    {
        tzset();
        std::tm brokenDown{};
        localtime_r(&second, &brokenDown);
        std::array<char, 32> text{};
        std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%S", &brokenDown);
        benchmark::DoNotOptimize(text);
    }
}
BENCHMARK_CAPTURE(timeTextStrftime, TzSet, "UTC0");
BENCHMARK_CAPTURE(timeTextStrftime, TzUnset, nullptr);

}
