// Not part of any program: the tests hand this to the compiler with one log call after the other.

#include "log/LogErrno.h"

#include <array>
#include <cstdint>
#include <string>

namespace Halden::Tavro::Utils
{

void logSnippet()
{
    SNIPPET;
}

}
