#include <utils/PcmExecutor.h>

#include "build/Hardened.h"
#include "log/Log.h"
#include "scheduling/RunningScheduler.h"

#include <boost/asio/post.hpp>
#include <boost/system/error_code.hpp>
#include <boost/system/system_error.hpp>

#include <functional>
#include <future>
#include <stdexcept>
#include <system_error>

namespace Halden::Tavro::Utils
{

namespace
{

constexpr std::size_t threadsPerHardwareThread = 6;

/// What runs an item once, on whichever thread comes first.
std::function<void()> taskOf(std::shared_ptr<PcmItemIfc> const& item)
{
    if constexpr (hardened)
    {
        // Lets go of the item while the batch still holds it, so that no thread of the pool ever drops the last
        // reference.
        return [held = item, scheduler = RunningScheduler::ofThisThread()]() mutable
        {
            RunningScheduler::Scope const scope(scheduler);
            held->execute();
            held.reset();
        };
    }
    else
    {
        return [item] { item->execute(); };
    }
}

}

PeriodicCallerManagerExecutorIfc::~PeriodicCallerManagerExecutorIfc() = default;

PcmExecutorSequential::PcmExecutorSequential()
    : Log::Logger("Halden::Tavro::Utils::PcmExecutorSequential", "", std::make_shared<Log::LoggerImpl>())
{
}

void PcmExecutorSequential::execute(std::vector<std::shared_ptr<PcmItemIfc>> const& items) noexcept
{
    auto const count = static_cast<unsigned>(items.size());
    // kept: [sequentialy] the misspelling; what reads the log of devices looks for both texts as they are
    TAVRO_LOG_TO(*this, Log::Severity::Trace, "executing %u items sequentialy", count);
    for (auto const& item : items)
    {
        item->execute();
    }
    TAVRO_LOG_TO(*this, Log::Severity::Trace, "executed %u items sequentialy", count);
}

PcmExecutorThreadPool::Pool::Pool()
    : boost::asio::thread_pool(std::size_t{0})
{
}

// Delegates, so that the destructor joins the threads made so far when one of them cannot be made.
PcmExecutorThreadPool::Pool::Pool(std::size_t count)
    : Pool()
{
    threads.reserve(count);
    try
    {
        while (threads.size() < count)
        {
            threads.emplace_back([this] { attach(); });
        }
    }
    catch (std::system_error const& error)
    {
        boost::system::error_code const code(error.code().value(), boost::system::system_category());
        throw boost::system::system_error(code, "thread");
    }
}

PcmExecutorThreadPool::Pool::~Pool()
{
    stop();
    for (auto& thread : threads)
    {
        thread.join();
    }
}

bool PcmExecutorThreadPool::Pool::hasThreads() const
{
    return !threads.empty();
}

PcmExecutorThreadPool::PcmExecutorThreadPool()
    : Log::Logger("Halden::Tavro::Utils::PcmExecutorThreadPool", "", std::make_shared<Log::LoggerImpl>())
    , pool(std::thread::hardware_concurrency() * threadsPerHardwareThread)
{
}

void PcmExecutorThreadPool::execute(std::vector<std::shared_ptr<PcmItemIfc>> const& items) noexcept
{
    auto const count = static_cast<unsigned>(items.size());
    TAVRO_LOG_TO(*this, Log::Severity::Trace, "executing %u items using thread pool", count);

    std::vector<std::shared_future<void>> futures;
    futures.reserve(items.size());
    for (auto const& item : items)
    {
        futures.emplace_back(std::async(std::launch::deferred, taskOf(item)));
    }
    if (pool.hasThreads()) // without threads a task would never run, and keep its item for ever
    {
        for (auto const& future : futures)
        {
            boost::asio::post(pool, [future] { future.wait(); });
        }
    }
    for (auto const& future : futures)
    {
        future.wait(); // never get(): nothing that an item may have stored is thrown again
    }

    TAVRO_LOG_TO(*this, Log::Severity::Trace, "executed %u items using thread pool", count);
}

std::unique_ptr<PeriodicCallerManagerExecutorIfc> make_executor(PeriodicCallerManager::ExecutionStrategy strategy)
{
    switch (strategy)
    {
    case PeriodicCallerManager::ExecutionStrategy::ThreadPool:
        return std::make_unique<PcmExecutorThreadPool>();
    case PeriodicCallerManager::ExecutionStrategy::Sequential:
        return std::make_unique<PcmExecutorSequential>();
    }
    throw std::runtime_error("Unknown execution strategy requested for the PeriodicCallerManager");
}

}
