#pragma once

#include <utils/Export.h>

#include <string>

/// The version of the headers that a program is built with: its first number.
#define HALDEN_CPPUTILS_VERSION_MAJOR 1
/// Its second number.
#define HALDEN_CPPUTILS_VERSION_MINOR 0
/// Its third number.
#define HALDEN_CPPUTILS_VERSION_PATCH 0

/// The building blocks that the services of a device share.
namespace Halden::Tavro::Utils
{

/// The version of the library that the program runs with, such as "1.0.0". It differs from that of the headers where
/// the device has got another library since the program was built.
///
/// Threads: any.
HALDEN_CPPUTILS_EXPORT std::string loadedVersion();

}
