#include <utils/PcmExecutor.h>

#include "log/Log.h"

#include <boost/asio/post.hpp>

#include <future>
#include <stdexcept>
#include <thread>

namespace Halden::Tavro::Utils
{

namespace
{

constexpr std::size_t threadsPerHardwareThread = 6;

}

PeriodicCallerManagerExecutorIfc::~PeriodicCallerManagerExecutorIfc() = default;

PcmExecutorSequential::PcmExecutorSequential()
    : Log::Logger("Halden::Tavro::Utils::PcmExecutorSequential", "", std::make_shared<Log::LoggerImpl>())
{
}

void PcmExecutorSequential::execute(std::vector<std::shared_ptr<PcmItemIfc>> const& items) noexcept
{
    auto const count = static_cast<unsigned>(items.size());
    TAVRO_LOG_TO(*this, Log::Severity::Trace, "executing %u items sequentialy", count);
    for (auto const& item : items)
    {
        item->execute();
    }
    TAVRO_LOG_TO(*this, Log::Severity::Trace, "executed %u items sequentialy", count);
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
        futures.emplace_back(std::async(std::launch::deferred, [item] { item->execute(); }));
    }
    if (pool.hasThreads) // without threads a task would never run, and keep its item for ever
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
