#include <utils/Version.h>

namespace Halden::Tavro::Utils
{

std::string loadedVersion()
{
    return std::to_string(HALDEN_CPPUTILS_VERSION_MAJOR) + '.' + std::to_string(HALDEN_CPPUTILS_VERSION_MINOR) + '.' +
           std::to_string(HALDEN_CPPUTILS_VERSION_PATCH);
}

}
