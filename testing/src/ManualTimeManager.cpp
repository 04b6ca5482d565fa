#include <utils/testing/ManualTimeManager.h>

#include "log/Log.h"

#include <utils/PcmExecutor.h>

#include <algorithm>
#include <cmath>
#include <iterator>
#include <stdexcept>
#include <utility>

namespace Halden::Tavro::Utils::Testing
{

namespace
{

using std::chrono::milliseconds;
using std::chrono::nanoseconds;
using std::chrono::steady_clock;

constexpr steady_clock::time_point never = steady_clock::time_point::max();
constexpr milliseconds longestPeriod = std::chrono::duration_cast<milliseconds>(nanoseconds::max());

milliseconds toMilliseconds(std::chrono::duration<double> period)
{
    if (std::isnan(period.count()))
    {
        return milliseconds::zero();
    }
    std::chrono::duration<double, std::milli> const inMs = period;
    if (inMs >= longestPeriod || inMs <= -longestPeriod)
    {
        return inMs.count() > 0 ? longestPeriod : -longestPeriod;
    }
    return milliseconds(static_cast<milliseconds::rep>(period.count() * 1000.0));
}

/// Where the sum does not fit, `never`.
steady_clock::time_point later(steady_clock::time_point time, nanoseconds duration)
{
    return duration > never - time ? never : time + duration;
}

void requireForwards(char const* operation, nanoseconds duration)
{
    if (duration < nanoseconds::zero())
    {
        throw std::invalid_argument(std::string(operation) + " was given " + std::to_string(duration.count()) +
                                    " ns, but time goes forwards only");
    }
}

}

/// The library's own item, due by the manager's time instead of the steady clock's.
class ManualTimeManager::Item final : public PcmItem
{
public:
    Item(std::function<void()> function, milliseconds period, std::atomic<steady_clock::time_point> const& present)
        : Log::Logger("Halden::Tavro::Utils::PcmItem", "", std::make_shared<Log::LoggerImpl>())
        , PcmItem(std::move(function), period)
        , present(present)
    {
    }

    void execute() override
    {
        lastStart = present.load();
        PcmItem::execute();
    }

    steady_clock::time_point nextDueTime() const override { return later(lastStart, period()); }

private:
    std::atomic<steady_clock::time_point> const& present;
    std::atomic<steady_clock::time_point> lastStart{steady_clock::time_point{}};
};

/// Marks the thread that is inside advance().
class ManualTimeManager::Advance
{
public:
    explicit Advance(std::atomic<std::thread::id>& advancing)
        : advancing(advancing)
    {
        std::thread::id nobody;
        if (!advancing.compare_exchange_strong(nobody, std::this_thread::get_id()))
        {
            throw std::logic_error(nobody == std::this_thread::get_id()
                                       ? "advance() was called from a periodic function, which has spend() for this"
                                       : "advance() was called while another thread is inside");
        }
    }

    Advance(Advance const&) = delete;
    Advance& operator=(Advance const&) = delete;

    ~Advance() { advancing = std::thread::id(); }

private:
    std::atomic<std::thread::id>& advancing;
};

ManualTimeManager::ManualTimeManager(std::string const& name, milliseconds uptime)
    : Log::Logger("Halden::Tavro::Utils::PeriodicCallerManager(" + name + ")", "", std::make_shared<Log::LoggerImpl>())
    , present(steady_clock::time_point(uptime))
    , executor(make_executor(PeriodicCallerManager::ExecutionStrategy::Sequential))
{
    requireForwards("ManualTimeManager()", uptime);
}

ManualTimeManager::~ManualTimeManager() = default;

std::unique_ptr<PeriodicCallerManagerTokenIfc> ManualTimeManager::add(std::function<void()> function,
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
    auto const item = std::make_shared<Item>(std::move(function), periodInMs, present);
    items.push_back(item);
    TAVRO_LOG_TO(*this, Log::Severity::Trace, "Item added. Having (%lu) now", static_cast<unsigned long>(items.size()));
    return std::make_unique<PcmToken>(item, shared_from_this());
}

void ManualTimeManager::remove(std::shared_ptr<PcmItemIfc> const& item)
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
}

void ManualTimeManager::advance(nanoseconds duration)
{
    requireForwards("advance()", duration);
    Advance const advance(advancing);
    steady_clock::time_point const end = later(present, duration);
    for (auto next = nextDueTime(); std::max(next, now()) <= end && next != never; next = nextDueTime())
    {
        present = std::max(next, now());
        runBatch();
    }
    present = std::max(end, now());
}

void ManualTimeManager::spend(nanoseconds duration)
{
    requireForwards("spend()", duration);
    if (advancing.load() != std::this_thread::get_id())
    {
        throw std::logic_error("spend() was called from outside a periodic function, where advance() lets time pass");
    }
    present = later(present, duration);
}

steady_clock::time_point ManualTimeManager::now() const
{
    return present;
}

steady_clock::time_point ManualTimeManager::nextDueTime() const
{
    auto earliest = never;
    std::lock_guard const lock(itemsMutex);
    for (auto const& item : items)
    {
        earliest = std::min(earliest, item->nextDueTime());
    }
    return earliest;
}

std::vector<std::shared_ptr<PcmItemIfc>> ManualTimeManager::due() const
{
    std::vector<std::shared_ptr<PcmItemIfc>> batch;
    std::lock_guard const lock(itemsMutex);
    batch.reserve(items.size());
    std::copy_if(items.begin(), items.end(), std::back_inserter(batch),
                 [until = now()](auto const& item) { return item->nextDueTime() <= until; });
    std::stable_sort(batch.begin(), batch.end(),
                     [](auto const& left, auto const& right) { return left->nextDueTime() < right->nextDueTime(); });
    return batch;
}

void ManualTimeManager::runBatch()
{
    steady_clock::time_point const start = present;
    executor->execute(due());
    if (present.load() == start)
    {
        requireWayOn();
    }
}

void ManualTimeManager::requireWayOn() const
{
    std::lock_guard const lock(itemsMutex);
    bool const isStuck = std::any_of(items.begin(), items.end(),
                                     [this](auto const& item)
                                     {
                                         auto const period = item->period();
                                         return period.count() < 0 && item->nextDueTime() == present.load() + period;
                                     });
    if (isStuck)
    {
        throw std::logic_error(
            "A function with a negative period is always due: unless it spends time, there is no end");
    }
}

}
