// Prints what one object of each kind that has threads costs, and one registered function: heap in use and threads.

#include "support/OtherThreads.h"

#include <utils/LocalIps.h>
#include <utils/PcmExecutor.h>
#include <utils/PeriodicCaller.h>
#include <utils/PeriodicCallerManager.h>

#include <malloc.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iterator>
#include <memory>
#include <new>
#include <vector>

namespace
{

using namespace Halden::Tavro::Utils;
using namespace std::chrono_literals;
using Strategy = PeriodicCallerManager::ExecutionStrategy;

/// Of operator new, as the allocator rounds them up.
std::atomic<long> bytesInUse{0};

struct Usage
{
    long heap;
    long threads;
};

/// Once all threads have come to rest.
Usage usageNow()
{
    Halden::Tavro::TestSupport::OtherThreads::awaitRest();
    std::filesystem::directory_iterator const tasks("/proc/self/task");
    return {bytesInUse, static_cast<long>(std::distance(begin(tasks), end(tasks)))};
}

template <typename Make>
void print(char const* name, Make const& make, long count = 1)
{
    Usage const before = usageNow();
    auto const object = make();
    Usage const after = usageNow();
    std::printf("| %s | %ld | %ld |\n", name, (after.heap - before.heap) / count, after.threads - before.threads);
}

auto manager(Strategy strategy)
{
    return [strategy] { return std::make_shared<PeriodicCallerManager>(strategy, "service"); };
}

}

void* operator new(std::size_t size)
{
    void* const block = std::malloc(size);
    if (block == nullptr)
    {
        throw std::bad_alloc();
    }
    bytesInUse += static_cast<long>(malloc_usable_size(block));
    return block;
}

void operator delete(void* block) noexcept
{
    bytesInUse -= block != nullptr ? static_cast<long>(malloc_usable_size(block)) : 0;
    std::free(block);
}

void operator delete(void* block, std::size_t /*size*/) noexcept
{
    operator delete(block);
}

int main()
{
    {
        auto const first = manager(Strategy::ThreadPool)(); // what is allocated once for all is not counted
        usageNow(); // its scheduler sleeps then: a stop in the instant before that would be lost
    }
    print("manager, sequential", manager(Strategy::Sequential));
    print("manager, thread pool", manager(Strategy::ThreadPool));
    print("started `PeriodicCaller`",
          []
          {
              auto caller = std::make_unique<PeriodicCaller>(1h, "service", [](auto const&) {});
              caller->start();
              return caller;
          });
    print("`LocalIps`", [] { return std::make_unique<LocalIps>(nullptr, nullptr, nullptr); });

    constexpr int items = 1000;
    auto const shared = manager(Strategy::Sequential)();
    print(
        "registered function, with its token",
        [&shared]
        {
            std::vector<std::unique_ptr<PeriodicCallerManagerTokenIfc>> tokens(items);
            for (auto& token : tokens)
            {
                token = shared->add([] {}, 1h);
            }
            return tokens;
        },
        items);
}
