#pragma once

#include <utils/Export.h>

#include <cstdint>
#include <string>

namespace Halden::Tavro::Utils
{

/// The number at the start of the text, which may begin with blanks and a plus sign. A prefix 0x or 0X makes it
/// hexadecimal, a leading 0 octal. What follows the number is ignored: "12abc" is 12, "0x" and "0b1" are 0. Neither the
/// locale nor the C library makes a difference.
///
/// A minus sign is refused only at the very start: behind blanks it negates the value modulo 2^64.
///
/// @throws std::invalid_argument "Cannot convert empty string to uint64", "Cannot convert negative value to uint64", or
///                               "stoull" when there is no number
/// @throws std::out_of_range     "stoull" when the value does not fit
HALDEN_CPPUTILS_EXPORT std::uint64_t to_uint64(std::string const& text);

/// As to_uint64(), but a minus sign is accepted before a zero, and refused before any other number, behind blanks too.
///
/// @throws std::invalid_argument "Cannot convert empty string to uint8", "Cannot convert negative values to uint8", or
///                               "stoi" when there is no number
/// @throws std::out_of_range     "stoi" when the value does not fit an int
/// @throws std::overflow_error   "The provided string overflows uint8"
HALDEN_CPPUTILS_EXPORT std::uint8_t to_uint8(std::string const& text);

/// The rest of the longer text from the first difference on; empty when there is none. Of two texts of the same length,
/// `a` counts as the longer one.
///
/// The terminating NUL of the shorter text is compared as well, so that a NUL character in the longer one matches it
/// there. Every position beyond is a difference.
HALDEN_CPPUTILS_EXPORT std::string mismatchString(std::string const& a, std::string const& b);

/// The text up to the terminating NUL; empty for a null pointer.
inline std::string fromCString(char const* p)
{
    return p == nullptr ? std::string() : std::string(p);
}

}
