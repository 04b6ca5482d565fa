#include <utils/PeriodicCallerManager.h>

#include "log/Log.h"

#include <utils/PcmExecutor.h>

#include <algorithm>
#include <cmath>
#include <exception>
#include <sstream>
#include <stdexcept>

namespace Halden::Tavro::Utils
{

namespace
{

using std::chrono::duration_cast;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

/// The time_t of a 32-bit system holds a due time that is this far ahead.
constexpr std::chrono::duration<double> longestPeriod = std::chrono::seconds(1 << 30);

milliseconds toMilliseconds(std::chrono::duration<double> period)
{
    if (std::isnan(period.count()))
    {
        return milliseconds::zero();
    }
    double const seconds = std::clamp(period, -longestPeriod, longestPeriod).count();
    return milliseconds(static_cast<milliseconds::rep>(seconds * 1000.0));
}

milliseconds::rep sinceEpochInMs(steady_clock::time_point time)
{
    return duration_cast<milliseconds>(time.time_since_epoch()).count();
}

bool isTraceEnabled()
{
    return Log::LoggerProxy::instance().isSeverityEnabled(Log::Severity::Trace);
}

std::string loweredText(steady_clock::time_point before, steady_clock::time_point after)
{
    std::ostringstream text;
    text << "Scheduler next due time (" << sinceEpochInMs(before) << "ms) lowered to (" << sinceEpochInMs(after)
         << "ms)";
    return text.str();
}

std::string passText(std::size_t count, steady_clock::time_point start, steady_clock::time_point next)
{
    std::ostringstream text;
    text << "Executing (" << count << ") took (" << duration_cast<milliseconds>(steady_clock::now() - start).count()
         << ")ms. Now waiting until (" << sinceEpochInMs(next) << ")ms which means ("
         << duration_cast<milliseconds>(next - steady_clock::now()).count() << ")ms from now";
    return text.str();
}

}

PeriodicCallerManagerTokenIfc::~PeriodicCallerManagerTokenIfc() = default;

PeriodicCallerManagerIfc::~PeriodicCallerManagerIfc() = default;

PcmToken::PcmToken(std::shared_ptr<PcmItemIfc> item, std::shared_ptr<PcmTokenToManagerIfc> manager)
    : item(std::move(item))
    , manager(std::move(manager))
{
}

PcmToken::~PcmToken()
{
    item->forbidFurtherExecutions();
    manager->remove(item);
    item->waitEndOfExecutionIfAny();
}

PeriodicCallerManager::PeriodicCallerManager(ExecutionStrategy strategy, std::string const& name)
    : Log::Logger("Halden::Tavro::Utils::PeriodicCallerManager(" + name + ")", "", std::make_shared<Log::LoggerImpl>())
    , executor(make_executor(strategy))
    , thread(&PeriodicCallerManager::schedulerThread, this)
{
}

PeriodicCallerManager::~PeriodicCallerManager()
{
    if (thread.joinable())
    {
        stopRequested = true;
        requestWakeUp();
        thread.join();
    }
}

std::unique_ptr<PeriodicCallerManagerTokenIfc> PeriodicCallerManager::add(std::function<void()> function,
                                                                          std::chrono::duration<double> period)
{
    milliseconds const periodInMs = toMilliseconds(period);
    if (periodInMs == milliseconds::zero())
    {
        TAVRO_LOG_TO(*this, Log::Severity::Error, "PCM item minimum period is 1ms, got 0ms");
        throw std::invalid_argument("Period must be greater than zero milliseconds");
    }
    TAVRO_LOG_TO(*this, Log::Severity::Trace, "Adding item with period (%lu)ms",
                 static_cast<unsigned long>(periodInMs.count()));

    std::lock_guard const lock(itemsMutex);
    auto const item = std::make_shared<PcmItem>(function, periodInMs);
    items.push_back(item);
    TAVRO_LOG_TO(*this, Log::Severity::Trace, "Item added. Having (%lu) now", static_cast<unsigned long>(items.size()));
    updateSchedulerNextDueTime();
    requestWakeUp(); // the item may be due although the earliest due time has not moved
    return std::make_unique<PcmToken>(item, shared_from_this());
}

void PeriodicCallerManager::remove(std::shared_ptr<PcmItemIfc> const& item)
{
    std::lock_guard const lock(itemsMutex);
    TAVRO_LOG_TO(*this, Log::Severity::Trace, "+remove");
    auto const found = std::find(items.begin(), items.end(), item);
    if (found == items.end())
    {
        TAVRO_LOG_TO(*this, Log::Severity::Warning, "-remove: item to be removed not in the list!");
        return;
    }
    items.erase(found);
    TAVRO_LOG_TO(*this, Log::Severity::Trace, "~remove: removed one, now has %lu items",
                 static_cast<unsigned long>(items.size()));
    updateSchedulerNextDueTime();
}

steady_clock::time_point PeriodicCallerManager::nextPcmDueTime() const
{
    auto earliest = steady_clock::time_point::max();
    for (auto const& item : items)
    {
        earliest = std::min(earliest, item->nextDueTime());
    }
    return earliest;
}

std::vector<std::shared_ptr<PcmItemIfc>> PeriodicCallerManager::dueUntil(steady_clock::time_point const& until)
{
    std::vector<std::shared_ptr<PcmItemIfc>> due;
    std::lock_guard const lock(itemsMutex);
    due.reserve(items.size());
    std::copy_if(items.begin(), items.end(), std::back_inserter(due),
                 [&until](auto const& item) { return item->nextDueTime() <= until; });
    auto const isEarlier = [](auto const& left, auto const& right)
    { return left->nextDueTime() < right->nextDueTime(); };
    if (!std::is_sorted(due.begin(), due.end(), isEarlier)) // functions that ran in turn are due in turn
    {
        std::sort(due.begin(), due.end(), isEarlier);
    }
    TAVRO_LOG_TO(*this, Log::Severity::Trace, "dueInPeriod: (%lu) items", static_cast<unsigned long>(due.size()));
    return due;
}

void PeriodicCallerManager::updateSchedulerNextDueTime()
{
    steady_clock::time_point const before = schedulerNextDueTime;
    steady_clock::time_point const after = nextPcmDueTime();
    if (after == before)
    {
        return;
    }
    if (isTraceEnabled())
    {
        TAVRO_LOG_TO(*this, Log::Severity::Trace, "%s", loweredText(before, after).c_str());
    }
    schedulerNextDueTime = after;
    if (after < before)
    {
        TAVRO_LOG_TO(*this, Log::Severity::Trace, "notify scheduler to update the wait_until time");
        requestWakeUp();
    }
}

void PeriodicCallerManager::requestWakeUp()
{
    wakeUpRequested = true;
    schedulerWakeup.notify_all(); // kept: without waitMutex
}

void PeriodicCallerManager::schedulerThread()
{
    TAVRO_LOG_TO(*this, Log::Severity::Info, "+schedulerThread: starting");
    try
    {
        while (!stopRequested)
        {
            runPass();
        }
    }
    catch (std::exception const& exception)
    {
        TAVRO_LOG_TO(*this, Log::Severity::Critical, "Scheduler thread failed with error %s", exception.what());
        throw;
    }
    catch (...)
    {
        TAVRO_LOG_TO(*this, Log::Severity::Critical, "Scheduler thread failed with unknown error");
        throw;
    }
    TAVRO_LOG_TO(*this, Log::Severity::Info, "-schedulerThread: exiting without error");
}

void PeriodicCallerManager::runPass()
{
    steady_clock::time_point const start = steady_clock::now();
    auto const batch = dueUntil(start); // kept until after the wait
    wakeUpRequested = false;            // before the execution, whose own requests must not get lost
    executor->execute(batch);
    steady_clock::time_point const next = nextPcmDueTime(); // kept: without itemsMutex
    if (!batch.empty() && isTraceEnabled())
    {
        TAVRO_LOG_TO(*this, Log::Severity::Trace, "%s", passText(batch.size(), start, next).c_str());
    }
    waitUntil(next);
}

void PeriodicCallerManager::waitUntil(steady_clock::time_point const& next)
{
    std::unique_lock lock(waitMutex);
    schedulerWakeup.wait_until(lock, next,
                               [this]
                               {
                                   if (stopRequested)
                                   {
                                       TAVRO_LOG_TO(*this, Log::Severity::Info, "stop requested: leaving wait");
                                       return true;
                                   }
                                   return wakeUpRequested.load();
                               });
}

}
