// Replaces the global allocation functions of the test program, and with them those of the libraries it links.

#include "support/FailingNew.h"

#include <cstddef>
#include <cstdlib>
#include <new>
#include <utility>

using Halden::Tavro::TestSupport::AllocationFailure;

namespace
{

thread_local AllocationFailure coming = AllocationFailure::None;
thread_local std::size_t passing = 0; // before it

AllocationFailure next()
{
    if (coming == AllocationFailure::None || passing-- > 0)
    {
        return AllocationFailure::None;
    }
    return std::exchange(coming, AllocationFailure::None);
}

}

void Halden::Tavro::TestSupport::failNextAllocation(AllocationFailure failure, std::size_t passing)
{
    coming = failure;
    ::passing = passing;
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
