#pragma once

namespace Halden::Tavro::Utils
{

/// What libxml2 calls for each message about a document that it validates. One call at a time: each formats into a
/// static buffer of 5000 characters, and a message that does not fit ends the process.
[[gnu::format(printf, 2, 3)]] void logValidationError(void* unused, char const* format, ...);
[[gnu::format(printf, 2, 3)]] void logValidationWarning(void* unused, char const* format, ...);

}
