#pragma once

#include <gtest/gtest.h>

#include <cstddef>
#include <string>

namespace Halden::Tavro::TestSupport
{

/// How much is in a directory, such as /proc/PID/fd.
std::size_t entriesOf(std::string const& directory);

/// The open descriptors of this process.
std::size_t openDescriptors();

/// The threads of this process.
std::size_t runningThreads();

/// Allocations by operator new since the start of the process, on all threads. Counted in test programs that list
/// support/NewDouble.cpp among their sources, elsewhere 0.
std::size_t heapAllocations();

/// Blocks of operator new that are not freed yet; otherwise as heapAllocations().
std::size_t heapBlocks();

/// What is allocated of the heap, by whomever; 0 with a sanitizer, which has a heap of its own.
std::size_t heapBytes();

/// What a process holds: blocks of operator new where they are counted, see heapAllocations(), descriptors and threads.
struct Holdings
{
    std::size_t blocks;
    std::size_t descriptors;
    std::size_t threads;
};

Holdings holdings();

/// Whether the process holds what it held before. A thread that has been joined is listed a moment longer, and so may
/// have been counted before: none but further threads fail, and only when they stay.
testing::AssertionResult isBackTo(Holdings const& before);

}
