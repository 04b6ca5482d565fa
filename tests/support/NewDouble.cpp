// Replaces the global allocation functions of the test program, and with them those of the libraries it links.

#include "support/NewDouble.h"
#include "support/CallDouble.h"
#include "support/HeapCounters.h"

#include <cstddef>
#include <cstdlib>
#include <new>
#include <utility>

namespace HeapCounters = Halden::Tavro::TestSupport::HeapCounters;
using Halden::Tavro::TestSupport::AllocationFailure;

namespace
{

thread_local AllocationFailure coming = AllocationFailure::None;
thread_local std::size_t left = 0; // allocations to pass before it

AllocationFailure next()
{
    if (coming == AllocationFailure::None || Halden::Tavro::TestSupport::doublesAtWork > 0 || left-- > 0)
    {
        return AllocationFailure::None;
    }
    return std::exchange(coming, AllocationFailure::None);
}

}

void Halden::Tavro::TestSupport::failNextAllocation(AllocationFailure failure, std::size_t passing)
{
    coming = failure;
    left = passing;
}

bool Halden::Tavro::TestSupport::allocationHasFailed()
{
    return std::exchange(coming, AllocationFailure::None) == AllocationFailure::None;
}

void* operator new(std::size_t size)
{
    AllocationFailure const failure = next();
    if (failure == AllocationFailure::Unknown)
    {
        throw 42;
    }
    void* const block = failure == AllocationFailure::None ? std::malloc(size == 0 ? 1 : size) : nullptr;
    if (block == nullptr)
    {
        throw std::bad_alloc();
    }
    ++HeapCounters::allocations;
    return block;
}

void operator delete(void* block) noexcept
{
    if (block != nullptr)
    {
        ++HeapCounters::frees;
    }
    std::free(block);
}

void operator delete(void* block, std::size_t /*size*/) noexcept
{
    operator delete(block);
}

// With a sanitizer, arrays have functions of their own.

void* operator new[](std::size_t size)
{
    return operator new(size);
}

void operator delete[](void* block) noexcept
{
    operator delete(block);
}

void operator delete[](void* block, std::size_t /*size*/) noexcept
{
    operator delete(block);
}
