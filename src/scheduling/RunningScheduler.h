#pragma once

#include <utils/PcmExecutor.h>
#include <utils/PeriodicCallerManager.h>

#include <atomic>
#include <memory>
#include <utility>

namespace Halden::Tavro::Utils
{

/// What a scheduler thread goes on with when its manager ends inside one of the functions that it runs.
///
/// Such a function drops the last reference to the manager. Its thread cannot wait there for the scheduler thread,
/// which waits for the function; so the manager's destructor leaves behind what is still at work, and the scheduler
/// thread ends it, and then itself, after the pass.
class RunningScheduler
{
public:
    explicit RunningScheduler(PeriodicCallerManager const& manager)
        : manager(&manager)
    {
    }

    /// The one on whose behalf this thread is running, null where there is none.
    static RunningScheduler* ofThisThread() { return current(); }

    bool runs(PeriodicCallerManager const& asked) const { return manager == &asked; }

    /// Its manager is gone, and must not be touched.
    bool isOrphaned() const { return manager == nullptr; }

    /// For the destructor of the manager.
    void orphan(std::unique_ptr<PeriodicCallerManagerExecutorIfc> busy)
    {
        executor = std::move(busy);
        manager = nullptr;
    }

    /// Lets this thread run on behalf of a scheduler, or of none, for as long as it lives.
    class Scope
    {
    public:
        explicit Scope(RunningScheduler* scheduler)
            : before(std::exchange(current(), scheduler))
        {
        }

        ~Scope() { current() = before; }

        Scope(Scope const&) = delete;
        Scope& operator=(Scope const&) = delete;

    private:
        RunningScheduler* const before;
    };

private:
    static RunningScheduler*& current()
    {
        thread_local RunningScheduler* instance = nullptr;
        return instance;
    }

    std::atomic<PeriodicCallerManager const*> manager; // functions that run side by side may ask and end at once
    std::unique_ptr<PeriodicCallerManagerExecutorIfc> executor; // left behind by the manager
};

}
