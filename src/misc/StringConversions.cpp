#include <utils/StringConversions.h>

#include <algorithm>
#include <iterator>
#include <limits>
#include <stdexcept>

namespace Halden::Tavro::Utils
{

std::uint64_t to_uint64(std::string const& text)
{
    if (text.empty())
    {
        throw std::invalid_argument("Cannot convert empty string to uint64");
    }
    if (text.front() == '-') // kept: the very first character only
    {
        throw std::invalid_argument("Cannot convert negative value to uint64");
    }
    return std::stoull(text, nullptr, 0);
}

std::uint8_t to_uint8(std::string const& text)
{
    if (text.empty())
    {
        throw std::invalid_argument("Cannot convert empty string to uint8");
    }
    int const value = std::stoi(text, nullptr, 0);
    if (value < 0)
    {
        throw std::invalid_argument("Cannot convert negative values to uint8");
    }
    if (value > std::numeric_limits<std::uint8_t>::max())
    {
        throw std::overflow_error("The provided string overflows uint8");
    }
    return static_cast<std::uint8_t>(value);
}

std::string mismatchString(std::string const& a, std::string const& b)
{
    bool const firstIsLonger = a.size() >= b.size();
    std::string const& longer = firstIsLonger ? a : b;
    std::string const& shorter = firstIsLonger ? b : a;

    // The shorter text's terminating NUL takes part; nothing behind it may be read.
    auto const compared = std::min(longer.size(), shorter.size() + 1);
    auto const end = std::next(longer.begin(), static_cast<std::string::difference_type>(compared));
    return {std::mismatch(longer.begin(), end, shorter.c_str()).first, longer.end()};
}

}
