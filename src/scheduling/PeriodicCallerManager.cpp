#include <utils/PeriodicCallerManager.h>

#include "build/Hardened.h"
#include "log/Log.h"
#include "scheduling/RunningScheduler.h"

#include <utils/PcmExecutor.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <exception>
#include <new>
#include <sstream>
#include <stdexcept>

namespace Halden::Tavro::Utils
{

namespace
{

using std::chrono::duration_cast;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

/// What 64 bits hold in nanoseconds: 292 years.
constexpr milliseconds longestPeriod = duration_cast<milliseconds>(steady_clock::duration::max());

/// The time_t of a 32-bit system holds a time that is this far ahead.
constexpr std::chrono::seconds longestWait{1 << 30};

milliseconds toMilliseconds(std::chrono::duration<double> period)
{
    if (std::isnan(period.count()))
    {
        return milliseconds::zero();
    }
    constexpr auto limit = static_cast<double>(longestPeriod.count());
    return milliseconds(static_cast<milliseconds::rep>(std::clamp(period.count() * 1000.0, -limit, limit)));
}

milliseconds::rep sinceEpochInMs(steady_clock::time_point time)
{
    return duration_cast<milliseconds>(time.time_since_epoch()).count();
}

bool isTraceEnabled()
{
    return Log::LoggerProxy::instance().isSeverityEnabled(Log::Severity::Trace);
}

/// Allocates nothing: a token that is destroyed must not fail.
std::array<char, 128> loweredText(steady_clock::time_point before, steady_clock::time_point after)
{
    std::array<char, 128> text{};
    static_cast<void>(std::snprintf(text.data(), text.size(), "Scheduler next due time (%lldms) lowered to (%lldms)",
                                    static_cast<long long>(sinceEpochInMs(before)),
                                    static_cast<long long>(sinceEpochInMs(after))));
    return text;
}

/// As far as 64 bits hold it: a due time may be 292 years back.
milliseconds untilFromNow(steady_clock::time_point time)
{
    steady_clock::time_point const now = steady_clock::now();
    return duration_cast<milliseconds>(std::max(time, steady_clock::time_point::min() + now.time_since_epoch()) - now);
}

std::string passText(std::size_t count, steady_clock::time_point start, steady_clock::time_point next)
{
    std::ostringstream text;
    text << "Executing (" << count << ") took (" << duration_cast<milliseconds>(steady_clock::now() - start).count()
         << ")ms. Now waiting until (" << sinceEpochInMs(next) << ")ms which means (" << untilFromNow(next).count()
         << ")ms from now";
    return text.str();
}

bool managerHasEnded()
{
    return hardened && RunningScheduler::ofThisThread()->isOrphaned();
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
    if constexpr (hardened)
    {
        RunningScheduler* const scheduler = RunningScheduler::ofThisThread();
        if (scheduler != nullptr && scheduler->runs(*this))
        {
            // A function that this thread runs has dropped the last reference: the scheduler thread ends by itself.
            TAVRO_LOG_TO(*this, Log::Severity::Info, "stop requested: leaving wait");
            TAVRO_LOG_TO(*this, Log::Severity::Info, "-schedulerThread: exiting without error");
            scheduler->orphan(std::move(executor));
            thread.detach();
            return;
        }
    }
    stopRequested = true;
    requestWakeUp();
    thread.join();
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
    std::shared_ptr<PeriodicCallerManager> self;
    if constexpr (hardened)
    {
        self = shared_from_this(); // throws before anything is registered
    }

    std::shared_ptr<PcmItem> item; // outlives the lock, for its function may own anything
    std::lock_guard const lock(itemsMutex);
    // kept: [function-copied-once] a copy; callers see how often their function is copied
    item = std::make_shared<PcmItem>(function, periodInMs); // NOLINT(performance-unnecessary-value-param)
    items.push_back(item);
    TAVRO_LOG_TO(*this, Log::Severity::Trace, "Item added. Having (%lu) now", static_cast<unsigned long>(items.size()));
    updateSchedulerNextDueTime();
    requestWakeUp(); // the item may be due although the earliest due time has not moved
    try
    {
        return std::make_unique<PcmToken>(item, hardened ? std::move(self) : shared_from_this());
    }
    catch (std::bad_alloc const&)
    {
        // kept: [registered-without-token] in the exact build it stays, as where no shared pointer owns the manager
        if constexpr (hardened)
        {
            items.pop_back();
        }
        throw;
    }
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
    bool inOrder = true; // the usual case: what ran one after another falls due in the same order
    auto last = steady_clock::time_point::min();
    std::lock_guard const lock(itemsMutex);
    due.reserve(items.size());
    for (auto const& item : items)
    {
        steady_clock::time_point const time = item->nextDueTime();
        if (time <= until)
        {
            due.push_back(item);
            inOrder = inOrder && last <= time;
            last = time;
        }
    }
    if (!inOrder)
    {
        // Asks again rather than keeping the answers beside the batch.
        std::sort(due.begin(), due.end(),
                  [](auto const& left, auto const& right) { return left->nextDueTime() < right->nextDueTime(); });
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
        TAVRO_LOG_TO(*this, Log::Severity::Trace, "%s", loweredText(before, after).data());
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
    std::unique_lock lock(waitMutex, std::defer_lock);
    // Under the lock, a request comes before the scheduler's last look or after its sleep has begun. One that is still
    // pending needs no lock: the scheduler will look at the stop and, under itemsMutex, at the list.
    if (hardened && !wakeUpRequested)
    {
        lock.lock();
    }
    wakeUpRequested = true;
    // kept: [lost-wake-up] without the lock; a request just before the sleep waits for its end
    schedulerWakeup.notify_all();
}

void PeriodicCallerManager::schedulerThread()
{
    RunningScheduler scheduler(*this);
    RunningScheduler::Scope const scope(&scheduler);
    TAVRO_LOG_TO(*this, Log::Severity::Info, "+schedulerThread: starting");
    try
    {
        while (!managerHasEnded() && !stopRequested)
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
    if (!managerHasEnded())
    {
        TAVRO_LOG_TO(*this, Log::Severity::Info, "-schedulerThread: exiting without error");
    }
}

void PeriodicCallerManager::runPass()
{
    steady_clock::time_point const start = steady_clock::now();
    auto batch = dueUntil(start);
    wakeUpRequested = false; // before the execution, whose own requests must not get lost
    executor->execute(batch);
    if (managerHasEnded())
    {
        return;
    }
    std::unique_lock lock(itemsMutex, std::defer_lock);
    if constexpr (hardened)
    {
        lock.lock();
    }
    // kept: [scan-without-lock] without the lock; adds and removals do not wait for it
    steady_clock::time_point const next = nextPcmDueTime();
    if constexpr (hardened)
    {
        lock.unlock();
    }
    if (!batch.empty() && isTraceEnabled())
    {
        TAVRO_LOG_TO(*this, Log::Severity::Trace, "%s", passText(batch.size(), start, next).c_str());
    }
    if (hardened && next == steady_clock::time_point::max())
    {
        batch.clear(); // or what its functions hold, perhaps the manager itself, would stay for good
        if (managerHasEnded())
        {
            return;
        }
    }
    waitUntil(next);
    // kept: [removed-function-kept] the batch until here; an item that has been removed is destroyed on this thread and
    // not beside its function
}

void PeriodicCallerManager::waitUntil(steady_clock::time_point const& next)
{
    auto const isRequested = [this]
    {
        if (stopRequested)
        {
            TAVRO_LOG_TO(*this, Log::Severity::Info, "stop requested: leaving wait");
            return true;
        }
        return wakeUpRequested.load();
    };
    std::unique_lock lock(waitMutex);
    steady_clock::time_point now = steady_clock::now();
    // Reads the clock before it looks for a request, so that none is missed up to the end. A sleep whose end has passed
    // would cost a visit to the kernel.
    while (!isRequested() && now < next)
    {
        schedulerWakeup.wait_until(lock, std::min(next, now + longestWait));
        now = steady_clock::now();
    }
}

}
