#pragma once

#include "support/CallDouble.h"

namespace Halden::Tavro::TestSupport
{

/// What a TempDir removes its tree by. For test programs that list files/UnlinkatDouble.cpp among their sources.
extern CallDouble<int(int, char const*, int)> unlinkatDouble;

}
