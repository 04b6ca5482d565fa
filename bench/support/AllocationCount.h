#pragma once

#include <cstddef>

namespace Halden::Tavro::Bench
{

/// Allocations by operator new of the calling thread so far, also those inside the libraries.
std::size_t allocations();

}
