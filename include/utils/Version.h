#pragma once

#include <utils/Export.h>

#include <string>

/// The version of the headers that a program is built with.
#define HALDEN_CPPUTILS_VERSION_MAJOR 1
#define HALDEN_CPPUTILS_VERSION_MINOR 0
#define HALDEN_CPPUTILS_VERSION_PATCH 0

namespace Halden::Tavro::Utils
{

/// The version of the library that the program runs with, such as "1.0.0". It is another one than that of the headers
/// where the device got another library since the program was built.
HALDEN_CPPUTILS_EXPORT std::string loadedVersion();

}
