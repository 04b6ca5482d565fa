// Reads any text as a number and compares it with what the C library reads, and any two texts with each other.

#include <utils/StringConversions.h>

#include "fuzz/Fuzz.h"

#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <stdexcept>
#include <string>

namespace Halden::Tavro::Utils
{

namespace
{

using namespace TestSupport;

/// What a call returns or throws, as a text.
template <typename Function>
std::string outcomeOf(Function const& function)
{
    try
    {
        return std::to_string(function());
    }
    catch (std::invalid_argument const& error)
    {
        return std::string("invalid_argument ") + error.what();
    }
    catch (std::out_of_range const& error)
    {
        return std::string("out_of_range ") + error.what();
    }
    catch (std::overflow_error const& error)
    {
        return std::string("overflow_error ") + error.what();
    }
}

/// The text up to its NUL, without the letter in "0b1": some C libraries read a binary number there.
std::string forOldCLibraries(std::string const& text)
{
    std::string plain = text.c_str();
    auto at = plain.find_first_not_of(" \t\n\v\f\r");
    if (at != std::string::npos && (plain[at] == '-' || plain[at] == '+'))
    {
        ++at;
    }
    if (at != std::string::npos && (plain.compare(at, 2, "0b") == 0 || plain.compare(at, 2, "0B") == 0))
    {
        plain.erase(at + 1);
    }
    return plain;
}

std::string expectedUint64(std::string const& text)
{
    if (text.empty())
    {
        return "invalid_argument Cannot convert empty string to uint64";
    }
    if (text[0] == '-')
    {
        return "invalid_argument Cannot convert negative value to uint64";
    }
    std::string const plain = forOldCLibraries(text);
    char* end = nullptr;
    errno = 0;
    unsigned long long const value = std::strtoull(plain.c_str(), &end, 0);
    if (end == plain.c_str())
    {
        return "invalid_argument stoull";
    }
    return errno == ERANGE ? "out_of_range stoull" : std::to_string(value);
}

std::string expectedUint8(std::string const& text)
{
    if (text.empty())
    {
        return "invalid_argument Cannot convert empty string to uint8";
    }
    std::string const plain = forOldCLibraries(text);
    char* end = nullptr;
    long long const value = std::strtoll(plain.c_str(), &end, 0); // at either end of its range: out of that of int, too
    if (end == plain.c_str())
    {
        return "invalid_argument stoi";
    }
    if (value < INT_MIN || value > INT_MAX)
    {
        return "out_of_range stoi";
    }
    if (value < 0)
    {
        return "invalid_argument Cannot convert negative values to uint8";
    }
    return value > 255 ? "overflow_error The provided string overflows uint8" : std::to_string(value);
}

std::string expectedMismatch(std::string const& a, std::string const& b)
{
    std::string const& longer = a.size() >= b.size() ? a : b;
    std::string const& shorter = a.size() >= b.size() ? b : a;
    for (std::size_t i = 0; i < longer.size(); ++i)
    {
        bool const isSame = i < shorter.size() ? longer[i] == shorter[i] : i == shorter.size() && longer[i] == '\0';
        if (!isSame)
        {
            return longer.substr(i);
        }
    }
    return "";
}

}

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size)
{
    std::string const text = FuzzInput(data, size).rest();
    require(outcomeOf([&] { return to_uint64(text); }) == expectedUint64(text));
    require(outcomeOf([&] { return to_uint8(text); }) == expectedUint8(text));

    auto const middle = text.find('|');
    std::string const first = text.substr(0, middle);
    std::string const second = middle == std::string::npos ? "" : text.substr(middle + 1);
    require(mismatchString(first, second) == expectedMismatch(first, second));
    return 0;
}

}
