#pragma once

#include "support/CallDouble.h"

namespace Halden::Tavro::TestSupport
{

/// For test programs that list UnlinkatDouble.cpp among their sources: what a TempDir removes its tree by.
extern CallDouble<int(int, char const*, int)> unlinkatDouble;

}
