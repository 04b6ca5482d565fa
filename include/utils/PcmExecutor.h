#pragma once

#include <log/Logger.h>
#include <utils/Export.h>
#include <utils/PcmItem.h>
#include <utils/PeriodicCallerManager.h>

#include <boost/asio/thread_pool.hpp>

#include <cstddef>
#include <memory>
#include <vector>

namespace Halden::Tavro::Utils
{

/// Runs one batch of due items. Owned and called by one manager, on its scheduler thread.
class HALDEN_CPPUTILS_EXPORT PeriodicCallerManagerExecutorIfc
{
public:
    virtual ~PeriodicCallerManagerExecutorIfc();

    /// Executes each item exactly once and returns when all have finished. An allocation that fails ends the process.
    virtual void execute(std::vector<std::shared_ptr<PcmItemIfc>> const& items) noexcept = 0;
};

/// Runs the items one after another on the calling thread: a slow item delays all that follow it.
class HALDEN_CPPUTILS_EXPORT PcmExecutorSequential : public PeriodicCallerManagerExecutorIfc,
                                                     protected virtual Log::Logger
{
public:
    PcmExecutorSequential();

    PcmExecutorSequential(PcmExecutorSequential const&) = delete;
    PcmExecutorSequential& operator=(PcmExecutorSequential const&) = delete;

    void execute(std::vector<std::shared_ptr<PcmItemIfc>> const& items) noexcept override;
};

/// Runs the items side by side on a pool of six threads per hardware thread, and on the calling thread, which takes up
/// from the front of the batch what no pool thread has started. The call lasts as long as the slowest item.
///
/// Where the number of hardware threads is unknown the pool has no threads, and the calling thread runs every item. A
/// task of the pool that comes too late finds its item done; until it has run, it keeps the item alive.
class HALDEN_CPPUTILS_EXPORT PcmExecutorThreadPool : public PeriodicCallerManagerExecutorIfc,
                                                     protected virtual Log::Logger
{
public:
    /// @throws boost::system::system_error when the first thread cannot be made. When a later one cannot, Boost's pool
    ///         waits for the threads before it, which never end.
    PcmExecutorThreadPool();

    PcmExecutorThreadPool(PcmExecutorThreadPool const&) = delete;
    PcmExecutorThreadPool& operator=(PcmExecutorThreadPool const&) = delete;

    void execute(std::vector<std::shared_ptr<PcmItemIfc>> const& items) noexcept override;

private:
    struct Pool : boost::asio::thread_pool
    {
        explicit Pool(std::size_t threads)
            : boost::asio::thread_pool(threads)
            , hasThreads(threads != 0)
        {
        }

        bool const hasThreads;
    };

    Pool pool;
};

/// @throws std::runtime_error "Unknown execution strategy requested for the PeriodicCallerManager"
/// @throws boost::system::system_error when the threads of a pool cannot be made
HALDEN_CPPUTILS_EXPORT std::unique_ptr<PeriodicCallerManagerExecutorIfc>
make_executor(PeriodicCallerManager::ExecutionStrategy strategy);

}
