#pragma once

#include <log/Logger.h>
#include <utils/Export.h>
#include <utils/PcmItem.h>
#include <utils/PeriodicCallerManager.h>

#include <boost/asio/thread_pool.hpp>

#include <cstddef>
#include <memory>
#include <thread>
#include <vector>

namespace Halden::Tavro::Utils
{

/// Runs one batch of due items. Owned and called by one manager, on its scheduler thread.
class HALDEN_CPPUTILS_EXPORT PeriodicCallerManagerExecutorIfc
{
public:
    virtual ~PeriodicCallerManagerExecutorIfc();

    /// Executes each item exactly once, and returns when all have finished. An allocation that fails ends the process.
    virtual void execute(std::vector<std::shared_ptr<PcmItemIfc>> const& items) noexcept = 0;
};

/// Runs the items one after another on the calling thread. A slow item delays all that follow it.
class HALDEN_CPPUTILS_EXPORT PcmExecutorSequential : public PeriodicCallerManagerExecutorIfc,
                                                     protected virtual Log::Logger
{
public:
    PcmExecutorSequential();

    PcmExecutorSequential(PcmExecutorSequential const&) = delete;
    PcmExecutorSequential& operator=(PcmExecutorSequential const&) = delete;

    void execute(std::vector<std::shared_ptr<PcmItemIfc>> const& items) noexcept override;
};

/// Runs the items side by side: on a pool of six threads per hardware thread, and on the calling thread, which takes
/// from the front of the batch what no pool thread has started. The call lasts as long as the slowest item.
///
/// Threads: the constructor makes those of the pool, and the destructor joins them. A service with two such executors
/// on four hardware threads has 48 of them. Where the number of hardware threads is unknown there are none, and the
/// calling thread runs every item.
///
/// Hazards of the exact build:
/// - When the calling thread has run an item, the pool's task for it may still be waiting, and keeps the item until its
///   turn. The last reference to an item, and to all that its function holds, may therefore go on a thread of the pool.
class HALDEN_CPPUTILS_EXPORT PcmExecutorThreadPool : public PeriodicCallerManagerExecutorIfc,
                                                     protected virtual Log::Logger
{
public:
    /// @throws boost::system::system_error when a thread cannot be made; those made before are ended
    PcmExecutorThreadPool();

    PcmExecutorThreadPool(PcmExecutorThreadPool const&) = delete;
    PcmExecutorThreadPool& operator=(PcmExecutorThreadPool const&) = delete;

    void execute(std::vector<std::shared_ptr<PcmItemIfc>> const& items) noexcept override;

private:
    /// Boost's pool without threads of its own: if one of those could not be made, it would wait for the others for
    /// ever.
    class HALDEN_CPPUTILS_EXPORT Pool : public boost::asio::thread_pool
    {
    public:
        explicit Pool(std::size_t count);
        ~Pool();

        Pool(Pool const&) = delete;
        Pool& operator=(Pool const&) = delete;

        bool hasThreads() const;

    private:
        Pool();

        std::vector<std::thread> threads; // attached to the pool
    };

    Pool pool;
};

/// Makes the executor of a strategy.
///
/// @throws std::runtime_error "Unknown execution strategy requested for the PeriodicCallerManager"
/// @throws boost::system::system_error when the threads of a pool cannot be made
[[nodiscard]] HALDEN_CPPUTILS_EXPORT std::unique_ptr<PeriodicCallerManagerExecutorIfc>
make_executor(PeriodicCallerManager::ExecutionStrategy strategy);

}
