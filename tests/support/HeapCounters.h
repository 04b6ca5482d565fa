#pragma once

#include <atomic>
#include <cstddef>

/// What NewDouble.cpp counts, and Resources.h tells the tests.
namespace Halden::Tavro::TestSupport::HeapCounters
{

extern std::atomic<std::size_t> allocations;
extern std::atomic<std::size_t> frees;

}
