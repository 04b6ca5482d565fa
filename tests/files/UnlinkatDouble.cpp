#include "files/UnlinkatDouble.h"

namespace Halden::Tavro::TestSupport
{

CallDouble<int(int, char const*, int)> unlinkatDouble{"unlinkat"};

extern "C" int unlinkat(int directory, char const* path, int flags) noexcept
{
    return unlinkatDouble(directory, path, flags);
}

}
