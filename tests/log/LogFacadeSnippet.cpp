// Not part of any program: the tests hand this to the compiler with different values in one log call.

#include "log/Log.h"

#include <array>
#include <cstdint>
#include <string>

namespace Halden::Tavro::Utils
{

void logSnippet()
{
    TAVRO_LOG(Log::Severity::Info, SNIPPET);
}

}
