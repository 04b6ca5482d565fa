#pragma once

#include <cstddef>

/// operator new of a test program, and of the libraries that it links: it counts, see Resources.h, and fails where a
/// test says so. For test programs that list support/NewDouble.cpp among their sources.
namespace Halden::Tavro::TestSupport
{

/// What operator new throws.
enum class AllocationFailure
{
    None,
    BadAlloc,
    Unknown ///< what is no std::exception
};

/// How an allocation of the calling thread fails, once: the next one, or that after so many have passed. What a
/// CallDouble allocates does not count.
void failNextAllocation(AllocationFailure failure, std::size_t passing = 0);

/// Lets no allocation fail any more.
///
/// @return whether one has failed since failNextAllocation()
bool allocationHasFailed();

}
