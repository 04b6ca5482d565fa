#pragma once

#include <utils/Export.h>

#include <string>

namespace Halden::Tavro::Utils
{

/// The bytes of a file from its start to its end, whatever they are.
///
/// The file's size only decides how much memory is set aside. Where it cannot be told (pipes, much of /proc), or where
/// more or less than that arrives (much of /sys, a file that somebody writes to), the result holds what was read. The
/// call blocks for as long as reading does; a file without an end, like /dev/zero, fills the memory.
///
/// A path that can be opened but not read, such as a directory, fails while reading: that is not logged, and the
/// exception does not name the path. Catching std::runtime_error covers both failures.
///
/// @throws std::runtime_error "Failed to read file: " and the path, when the file cannot be opened
/// @throws std::ios_base::failure with the system's reason, when reading fails
/// @throws std::bad_alloc, std::length_error when the content does not fit into a string
HALDEN_CPPUTILS_EXPORT std::string fileToString(std::string const& path);

}
