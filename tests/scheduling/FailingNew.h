#pragma once

namespace Halden::Tavro::TestSupport
{

enum class AllocationFailure
{
    None,
    BadAlloc,
    Unknown
};

/// How the next allocation of the calling thread fails. For test programs that list FailingNew.cpp among their sources.
void failNextAllocation(AllocationFailure failure);

}
