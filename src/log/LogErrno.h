#pragma once

#include "log/Log.h"

#include <cerrno>
#include <cstring>

/// Logs a failed call of the system at Error. The format's last two specifiers, "%d" and "%s", are for the number in
/// errno and its text, which the call adds to the values:
///
/// if (bind(socket, address, length) < 0)
/// {
///     TAVRO_LOG_ERRNO_TO(*this, "Failed to bind to %s, errno=%d (%s)", name.c_str()); // a class with a Logger base
///     throw std::runtime_error("Failed to bind.");
/// }
/// TAVRO_LOG_ERRNO("Failed to bind, errno=%d (%s)");                                   // everything else
///
/// It comes before anything else that may change errno, and leaves errno as it was, whatever logging makes of it. The
/// compiler compares format and values as in every log call.
#define TAVRO_LOG_ERRNO_TO(logger, ...)                                                                                \
    do                                                                                                                 \
    {                                                                                                                  \
        int const tavroLogErrno = errno;                                                                               \
        TAVRO_LOG_TO(logger, ::Halden::Tavro::Log::Severity::Error, __VA_ARGS__, tavroLogErrno,                        \
                     std::strerror(tavroLogErrno));                                                                    \
        errno = tavroLogErrno;                                                                                         \
    } while (false)

#define TAVRO_LOG_ERRNO(...)                                                                                           \
    do                                                                                                                 \
    {                                                                                                                  \
        int const tavroLogErrno = errno;                                                                               \
        TAVRO_LOG(::Halden::Tavro::Log::Severity::Error, __VA_ARGS__, tavroLogErrno, std::strerror(tavroLogErrno));    \
        errno = tavroLogErrno;                                                                                         \
    } while (false)
