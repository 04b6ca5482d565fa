#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>

/// For files that the library opens later: it says that it cannot, not why.
///
/// @throws std::runtime_error with the path and the reason when the file cannot be read
inline void requireReadable(std::string const& path)
{
    int const file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    char first = 0;
    if (file < 0 || read(file, &first, 1) < 0)
    {
        throw std::runtime_error(path + ": " + std::strerror(errno));
    }
    close(file);
}

/// Likewise, makes an empty file where there is none.
///
/// @throws std::runtime_error with the path and the reason when the file cannot be written
inline void requireWritable(std::string const& path)
{
    int const file = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0666);
    if (file < 0)
    {
        throw std::runtime_error(path + ": " + std::strerror(errno));
    }
    close(file);
}
