#pragma once

#include <utils/PcmItem.h>

#include "support/WaitFor.h"

#include <chrono>
#include <future>

/// What the tests of the item share.
namespace Halden::Tavro::TestSupport
{

constexpr auto itemLogger = "Halden::Tavro::Utils::PcmItem";
constexpr auto forbiddenText = "Execution of PCM item is forbidden";
constexpr auto firstUnknownText =
    "PcmItem execution threw unknown exception. Further exceptions will be logged with trace level";

constexpr std::chrono::seconds limit{10};
/// How long something is watched that must not happen.
constexpr std::chrono::milliseconds watchTime{100};

/// A time of the steady clock.
inline std::chrono::steady_clock::time_point at(std::chrono::nanoseconds sinceEpoch)
{
    return std::chrono::steady_clock::time_point(sinceEpoch);
}

inline void doNothing() {}

/// Calls waitEndOfExecutionIfAny() on a thread of its own.
class Waiter
{
public:
    explicit Waiter(Utils::PcmItem& item)
        : returned(std::async(std::launch::async, [&item] { item.waitEndOfExecutionIfAny(); }))
    {
    }

    bool returnsWithin(std::chrono::milliseconds time) const { return becomesReady(returned, time); }

private:
    std::future<void> returned;
};

}
