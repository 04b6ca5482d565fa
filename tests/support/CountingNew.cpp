// Replaces the global allocation functions of the test program, and with them those of the libraries it links.

#include "support/HeapCounters.h"

#include <cstdlib>
#include <new>

namespace HeapCounters = Halden::Tavro::TestSupport::HeapCounters;

void* operator new(std::size_t size)
{
    void* const block = std::malloc(size == 0 ? 1 : size);
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
