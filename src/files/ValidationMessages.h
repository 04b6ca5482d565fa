#pragma once

namespace Halden::Tavro::Utils
{

/// What libxml2 calls for each message about a document that it validates, to be logged.
///
/// The hardened build cuts a message to 4999 characters. In the exact build a longer one ends the process, and only one
/// thread at a time may call, as each function has one buffer.
[[gnu::format(printf, 2, 3)]] void logValidationError(void* unused, char const* format, ...);
[[gnu::format(printf, 2, 3)]] void logValidationWarning(void* unused, char const* format, ...);

}
