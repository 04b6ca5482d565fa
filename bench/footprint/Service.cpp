// A service of one manager and one function; how much more it costs than BaseService.cpp is what the library costs.

#include "Start.h"

#include <utils/PeriodicCallerManager.h>

#include <future>

using Halden::Tavro::Utils::PeriodicCallerManager;

int main()
{
    reachedMain();
    std::promise<void> called;
    auto const manager =
        std::make_shared<PeriodicCallerManager>(PeriodicCallerManager::ExecutionStrategy::Sequential, "service");
    auto const token = manager->add(
        [&called, first = true]() mutable
        {
            if (first)
            {
                called.set_value();
            }
            first = false;
        },
        std::chrono::milliseconds(1)); // soon again: a lost request to wake costs no more than that
    called.get_future().wait();
    printCost();
}
