#pragma once

#include <log/Logger.h>
#include <utils/PcmItem.h>

#include "support/WaitFor.h"

#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <utility>
#include <vector>

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

/// Executes an item that throws, and once more while the line of the first exception is being written.
///
/// @return the severities of both lines, in the order in which their writing began
inline std::vector<Log::Severity> severitiesOfTwoAtOnce(std::function<void()> const& throwing)
{
    struct Sink : Log::LoggerImplIfc
    {
        void write(Log::Record const& record) override
        {
            severities.push_back(record.severity);
            if (severities.size() == 1)
            {
                executeAgain();
            }
        }

        std::function<void()> executeAgain;
        std::vector<Log::Severity> severities;
    };
    auto const sink = std::make_shared<Sink>();
    auto const previous = Log::LoggerProxy::instance().setSink(sink);
    Log::LoggerProxy::instance().setThreshold(Log::Severity::Trace);
    Utils::PcmItem item(throwing, std::chrono::milliseconds(1));
    sink->executeAgain = [&item] { item.execute(); };

    item.execute();

    Log::LoggerProxy::instance().setThreshold(Log::Severity::Info);
    Log::LoggerProxy::instance().setSink(previous);
    return std::move(sink->severities);
}

}
