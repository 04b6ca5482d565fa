#include <utils/StringConversions.h>

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cstring>
#include <iterator>
#include <limits>
#include <stdexcept>
#include <system_error>

namespace Halden::Tavro::Utils
{

namespace
{

struct Number
{
    bool negative{false};
    std::uint64_t magnitude{0};
};

bool startsHexadecimal(char const* text)
{
    return text[0] == '0' && (text[1] == 'x' || text[1] == 'X') &&
           std::isxdigit(static_cast<unsigned char>(text[2])) != 0;
}

/// Reads as strtoull(3) does with base 0 in the C locale, and throws as std::stoull does. It does not call strtoull, as
/// some C libraries read "0b1" as a binary number, others as 0.
///
/// @param function the exceptions' text
Number readNumber(std::string const& text, char const* function)
{
    char const* digits = text.c_str() + std::strspn(text.c_str(), " \t\n\v\f\r");
    Number number{*digits == '-'};
    if (*digits == '-' || *digits == '+')
    {
        ++digits;
    }
    int base = *digits == '0' ? 8 : 10;
    if (startsHexadecimal(digits))
    {
        base = 16;
        digits += 2;
    }
    auto const error = std::from_chars(digits, text.c_str() + text.size(), number.magnitude, base).ec;
    if (error == std::errc::invalid_argument)
    {
        throw std::invalid_argument(function);
    }
    if (error == std::errc::result_out_of_range)
    {
        throw std::out_of_range(function);
    }
    return number;
}

}

std::uint64_t to_uint64(std::string const& text)
{
    if (text.empty())
    {
        throw std::invalid_argument("Cannot convert empty string to uint64");
    }
    // kept: [minus-behind-blanks] behind blanks it passes and wraps; services may hand over such texts
    if (text.front() == '-')
    {
        throw std::invalid_argument("Cannot convert negative value to uint64");
    }
    auto const [negative, magnitude] = readNumber(text, "stoull");
    return negative ? 0 - magnitude : magnitude;
}

std::uint8_t to_uint8(std::string const& text)
{
    if (text.empty())
    {
        throw std::invalid_argument("Cannot convert empty string to uint8");
    }
    auto const [negative, magnitude] = readNumber(text, "stoi");
    std::uint64_t const greatestInt = std::numeric_limits<int>::max();
    if (magnitude > greatestInt + (negative ? 1 : 0))
    {
        throw std::out_of_range("stoi");
    }
    if (negative && magnitude > 0)
    {
        throw std::invalid_argument("Cannot convert negative values to uint8");
    }
    if (magnitude > std::numeric_limits<std::uint8_t>::max())
    {
        throw std::overflow_error("The provided string overflows uint8");
    }
    return static_cast<std::uint8_t>(magnitude);
}

std::string mismatchString(std::string const& a, std::string const& b)
{
    bool const firstIsLonger = a.size() >= b.size();
    std::string const& longer = firstIsLonger ? a : b;
    std::string const& shorter = firstIsLonger ? b : a;

    // The shorter text's terminating NUL is compared too; nothing behind it may be read.
    auto const compared = std::min(longer.size(), shorter.size() + 1);
    auto const end = std::next(longer.begin(), static_cast<std::string::difference_type>(compared));
    return {std::mismatch(longer.begin(), end, shorter.c_str()).first, longer.end()};
}

}
