#pragma once

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

namespace Halden::Tavro::Bench
{

/// A periodic function as PcmItem is one, without its log calls and limits.
class BareItem
{
public:
    using Clock = std::chrono::steady_clock;

    BareItem(std::function<void()> function, Clock::duration period)
        : period(period)
        , function(std::move(function))
    {
    }

    BareItem(BareItem const&) = delete;
    BareItem& operator=(BareItem const&) = delete;

    virtual ~BareItem() = default;

    virtual void execute()
    {
        std::lock_guard const lock(mutex);
        lastStart = Clock::now();
        if (!forbidden)
        {
            function();
        }
    }

    virtual Clock::time_point nextDueTime() const { return lastStart + period; }

private:
    Clock::duration const period;
    std::function<void()> const function;
    std::recursive_mutex mutex;
    Clock::time_point lastStart;
    std::atomic<bool> forbidden{false};
};

/// The passes of a sequential manager by hand: each item is asked for its due time once for the batch and once for the
/// next due time, and the clock is read before a sleep. Nothing else changes the items, so the batch is in order.
class BareScheduler
{
public:
    using Clock = BareItem::Clock;

    void add(std::function<void()> function, Clock::duration period)
    {
        items.push_back(std::make_shared<BareItem>(std::move(function), period));
    }

    /// @return the next due time
    Clock::time_point pass(Clock::time_point until)
    {
        auto const batch = dueUntil(until);
        wakeUpRequested = false;
        for (auto const& item : batch)
        {
            item->execute();
        }
        auto next = Clock::time_point::max();
        for (auto const& item : items)
        {
            next = std::min(next, item->nextDueTime());
        }
        return next;
    }

    void waitUntil(Clock::time_point next)
    {
        std::unique_lock lock(waitMutex);
        while (!wakeUpRequested && Clock::now() < next)
        {
            wakeUp.wait_until(lock, next);
        }
    }

private:
    std::vector<std::shared_ptr<BareItem>> dueUntil(Clock::time_point until)
    {
        std::vector<std::shared_ptr<BareItem>> due;
        std::lock_guard const lock(itemsMutex);
        due.reserve(items.size());
        for (auto const& item : items)
        {
            if (item->nextDueTime() <= until)
            {
                due.push_back(item);
            }
        }
        return due;
    }

    std::mutex itemsMutex;
    std::mutex waitMutex;
    std::condition_variable wakeUp;
    std::atomic<bool> wakeUpRequested{false};
    std::list<std::shared_ptr<BareItem>> items;
};

}
