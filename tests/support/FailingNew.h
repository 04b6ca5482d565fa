#pragma once

#include <cstddef>

namespace Halden::Tavro::TestSupport
{

enum class AllocationFailure
{
    None,
    BadAlloc,
    Unknown
};

/// How an allocation of the calling thread fails, once: the next one, or that after so many have passed. For test
/// programs that list support/FailingNew.cpp among their sources. What a CallDouble allocates does not count.
void failNextAllocation(AllocationFailure failure, std::size_t passing = 0);

/// Lets no allocation fail any more.
///
/// @return whether one has failed since failNextAllocation()
bool allocationHasFailed();

}
