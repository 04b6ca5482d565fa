// Replaces the global allocation functions of the test program, and with them those of the libraries it links.

#include "scheduling/FailingNew.h"

#include <cstddef>
#include <cstdlib>
#include <new>
#include <utility>

using Halden::Tavro::TestSupport::AllocationFailure;

namespace
{

thread_local AllocationFailure nextAllocation = AllocationFailure::None;

}

void Halden::Tavro::TestSupport::failNextAllocation(AllocationFailure failure)
{
    nextAllocation = failure;
}

void* operator new(std::size_t size)
{
    AllocationFailure const failure = std::exchange(nextAllocation, AllocationFailure::None);
    if (failure == AllocationFailure::Unknown)
    {
        throw 42;
    }
    void* const block = failure == AllocationFailure::None ? std::malloc(size == 0 ? 1 : size) : nullptr;
    if (block == nullptr)
    {
        throw std::bad_alloc();
    }
    return block;
}

void operator delete(void* block) noexcept
{
    std::free(block);
}

void operator delete(void* block, std::size_t /*size*/) noexcept
{
    std::free(block);
}
