#pragma once

#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstdlib>
#include <stdexcept>
#include <string>

/// What the conversions of texts are to answer, as the C library has it: for the tests, and for the fuzzer.
namespace Halden::Tavro::TestSupport
{

/// What a conversion returns, or the type and text of its exception.
template <typename Conversion>
std::string outcomeOf(Conversion const& conversion)
{
    try
    {
        return std::to_string(conversion());
    }
    catch (std::invalid_argument const& exception)
    {
        return std::string("invalid_argument ") + exception.what();
    }
    catch (std::out_of_range const& exception)
    {
        return std::string("out_of_range ") + exception.what();
    }
    catch (std::overflow_error const& exception)
    {
        return std::string("overflow_error ") + exception.what();
    }
}

/// The text less a B behind its leading 0, and all that follows. Some C libraries would take them for a binary number;
/// what is left means the same to all.
inline std::string withoutBinaryNumber(std::string const& text)
{
    auto const prefix = text.find('0');
    bool const leading = prefix <= text.find_first_not_of(" \t\n\v\f\r+-");
    bool const binary = leading && prefix + 1 < text.size() && (text[prefix + 1] == 'b' || text[prefix + 1] == 'B');
    return binary ? text.substr(0, prefix + 1) : text;
}

/// What the C library makes of the text, in the form of outcomeOf().
inline std::string expectedUint64(std::string const& whole)
{
    auto const text = withoutBinaryNumber(whole);
    if (text.empty() || text[0] == '-')
    {
        return text.empty() ? "invalid_argument Cannot convert empty string to uint64"
                            : "invalid_argument Cannot convert negative value to uint64";
    }
    char* end = nullptr;
    errno = 0;
    unsigned long long const value = std::strtoull(text.c_str(), &end, 0);
    if (end == text.c_str())
    {
        return "invalid_argument stoull";
    }
    return errno == ERANGE ? "out_of_range stoull" : std::to_string(value);
}

inline std::string expectedUint8(std::string const& whole)
{
    auto const text = withoutBinaryNumber(whole);
    if (text.empty())
    {
        return "invalid_argument Cannot convert empty string to uint8";
    }
    char* end = nullptr;
    errno = 0;
    long long const value = std::strtoll(text.c_str(), &end, 0); // a long may be no wider than an int
    if (end == text.c_str())
    {
        return "invalid_argument stoi";
    }
    if (errno == ERANGE || value < INT_MIN || value > INT_MAX)
    {
        return "out_of_range stoi";
    }
    if (value < 0)
    {
        return "invalid_argument Cannot convert negative values to uint8";
    }
    return value > 255 ? "overflow_error The provided string overflows uint8" : std::to_string(value);
}

/// What is left of the longer text where it begins to differ from the other one, whose end is a NUL.
inline std::string expectedMismatch(std::string const& a, std::string const& b)
{
    auto const& longer = b.size() > a.size() ? b : a;
    auto const shorter = (b.size() > a.size() ? a : b) + '\0';
    for (std::size_t i = 0; i < longer.size(); ++i)
    {
        if (i >= shorter.size() || longer[i] != shorter[i])
        {
            return longer.substr(i);
        }
    }
    return "";
}

}
