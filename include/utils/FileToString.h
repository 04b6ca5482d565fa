#pragma once

#include <utils/Export.h>

#include <string>

namespace Halden::Tavro::Utils
{

/// The bytes of a file from its start to its end, whatever they are.
///
/// The file's size only decides how much memory is reserved. Where the size cannot be told (pipes, much of /proc), or
/// more or less arrives (much of /sys, a file that is being written), the result is what was read. The call blocks for
/// as long as reading does; a file without an end, like /dev/zero, fills the memory.
///
/// A path that can be opened but not read, such as a directory, fails while reading. That failure is not logged, and
/// its exception does not name the path. A handler for std::runtime_error catches both.
///
/// Threads: any.
///
/// @throws std::runtime_error "Failed to read file: " and the path, when the file cannot be opened
/// @throws std::ios_base::failure with the system's reason, when reading fails
/// @throws std::bad_alloc when there is no memory for the content
/// @throws std::length_error when the content is longer than a string can be
HALDEN_CPPUTILS_EXPORT std::string fileToString(std::string const& path);

}
