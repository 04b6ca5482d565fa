#pragma once

#include <atomic>
#include <cstddef>

namespace Halden::Tavro::TestSupport::HeapCounters
{

extern std::atomic<std::size_t> allocations;
extern std::atomic<std::size_t> frees;

}
