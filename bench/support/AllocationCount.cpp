#include "support/AllocationCount.h"

#include <cstdlib>
#include <new>

namespace
{

thread_local std::size_t count = 0; // not atomic: counting must not slow down what is measured

}

std::size_t Halden::Tavro::Bench::allocations()
{
    return count;
}

void* operator new(std::size_t size)
{
    void* const block = std::malloc(size == 0 ? 1 : size);
    if (block == nullptr)
    {
        throw std::bad_alloc();
    }
    ++count;
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
