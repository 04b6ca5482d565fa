#include "support/Resources.h"

#include "support/HeapCounters.h"
#include "support/WaitFor.h"

#include <malloc.h>

#include <filesystem>
#include <iterator>
#include <thread>

namespace Halden::Tavro::TestSupport
{

namespace
{

/// A sanitizer makes a thread of its own together with the first one of the program, which none of the counted ones is
/// to be.
[[maybe_unused]] bool const sanitizersThreadRuns = []
{
    std::thread([] {}).join();
    return true;
}();

}

namespace HeapCounters
{

std::atomic<std::size_t> allocations{0};
std::atomic<std::size_t> frees{0};

}

std::size_t entriesOf(std::string const& directory)
{
    return static_cast<std::size_t>(
        std::distance(std::filesystem::directory_iterator(directory), std::filesystem::directory_iterator()));
}

std::size_t openDescriptors()
{
    return entriesOf("/proc/self/fd") - 1; // one is the look itself
}

std::size_t runningThreads()
{
    return entriesOf("/proc/self/task");
}

std::size_t heapAllocations()
{
    return HeapCounters::allocations;
}

std::size_t heapBlocks()
{
    return HeapCounters::allocations - HeapCounters::frees;
}

std::size_t heapBytes()
{
    auto const state = mallinfo2();
    return state.uordblks + state.hblkhd;
}

Holdings holdings()
{
    return {heapBlocks(), openDescriptors(), runningThreads()};
}

testing::AssertionResult isBackTo(Holdings const& before)
{
    waitFor([&before] { return runningThreads() <= before.threads; });
    Holdings const now = holdings();
    if (now.blocks == before.blocks && now.descriptors == before.descriptors && now.threads <= before.threads)
    {
        return testing::AssertionSuccess();
    }
    return testing::AssertionFailure() << "blocks " << before.blocks << " -> " << now.blocks << ", descriptors "
                                       << before.descriptors << " -> " << now.descriptors << ", threads "
                                       << before.threads << " -> " << now.threads;
}

}
