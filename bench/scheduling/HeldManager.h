#pragma once

#include <utils/PeriodicCallerManager.h>

#include <future>
#include <memory>
#include <vector>

namespace Halden::Tavro::Bench
{

/// A manager with the operations of a pass opened up.
class PassManager : public Utils::PeriodicCallerManager
{
public:
    using PeriodicCallerManager::dueUntil;
    using PeriodicCallerManager::nextPcmDueTime;
    PassManager();
};

/// A manager whose scheduler thread sleeps: a wake-up that is asked for just before may be lost.
std::shared_ptr<PassManager> makeSleepingManager();

/// A manager whose scheduler thread is kept inside a function, and a number of other functions that do nothing.
///
/// The scheduler thread scans its list of functions without a lock. While it is held, the thread that measures may add,
/// remove and scan as fast as it likes.
class HeldManager
{
public:
    /// @param count functions registered, each with a period of an hour, all that the manager has
    explicit HeldManager(std::size_t count);

    HeldManager(HeldManager const&) = delete;
    HeldManager& operator=(HeldManager const&) = delete;

    ~HeldManager();

    PassManager& operator*() const { return *manager; }
    PassManager* operator->() const { return manager.get(); }

private:
    void hold();

    std::promise<void> registered;
    std::promise<void> held;
    std::promise<void> release;
    std::promise<void> released;
    std::shared_ptr<PassManager> const manager;
    std::unique_ptr<Utils::PeriodicCallerManagerTokenIfc> holder;
    std::vector<std::unique_ptr<Utils::PeriodicCallerManagerTokenIfc>> tokens;
};

}
