#include "scheduling/HeldManager.h"

#include "support/OtherThreads.h"

#include <chrono>

namespace Halden::Tavro::Bench
{

using namespace std::chrono_literals;

PassManager::PassManager()
    : Log::Logger("Halden::Tavro::Bench::PassManager", "", std::make_shared<Log::LoggerImpl>())
    , PeriodicCallerManager(ExecutionStrategy::Sequential, "bench")
{
}

std::shared_ptr<PassManager> makeSleepingManager()
{
    auto const manager = std::make_shared<PassManager>();
    TestSupport::OtherThreads::awaitRest();
    return manager;
}

HeldManager::HeldManager(std::size_t count)
    : manager(makeSleepingManager())
    , holder(manager->add([this] { hold(); }, 1ms))
{
    registered.set_value();
    held.get_future().wait();
    for (std::size_t added = 0; added < count; ++added)
    {
        tokens.push_back(manager->add([] {}, 1h));
    }
}

HeldManager::~HeldManager()
{
    tokens.clear();
    release.set_value();
    released.get_future().wait();
    TestSupport::OtherThreads::awaitRest();
}

void HeldManager::hold()
{
    registered.get_future().wait();
    holder.reset(); // on the scheduler thread, so that nothing changes the list while it scans
    held.set_value();
    release.get_future().wait();
    released.set_value();
}

}
