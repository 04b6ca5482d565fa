#pragma once

#include <cstddef>

namespace Halden::Tavro::TestSupport
{

/// The open descriptors of this process.
std::size_t openDescriptors();

/// The threads of this process.
std::size_t runningThreads();

/// Allocations by operator new since the start of the process, on all threads. Counted in test programs that list
/// support/CountingNew.cpp among their sources, elsewhere 0.
std::size_t heapAllocations();

/// Blocks of operator new that are not freed yet; otherwise as heapAllocations().
std::size_t heapBlocks();

/// What is allocated of the heap, by whomever; 0 with a sanitizer, which has a heap of its own.
std::size_t heapBytes();

}
