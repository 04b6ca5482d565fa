#pragma once

#include <cstdint>
#include <limits>

/// Bit work on registers and wire formats.
namespace Halden::Tavro::Utils::Bits
{

/// The low `width` bits set. From width 32 on, all bits are.
constexpr unsigned int bitmask(unsigned int width)
{
    unsigned int const allOnes = ~0U;
    return width < std::numeric_limits<unsigned int>::digits ? ~(allOnes << width) : allOnes;
}

/// The two's-complement encoding of the value in `width` bits. A value that does not fit loses its upper bits; a width
/// above 32 counts as 32.
constexpr unsigned int two_complement(int value, unsigned int width)
{
    auto bits = static_cast<unsigned int>(value);
    if (value < 0)
    {
        // kept: [upper-bits-are-lost] changes only bits above `width`, which the mask clears; without it the result is
        // the same
        unsigned int const sign = width < std::numeric_limits<unsigned int>::digits ? 2U << width : 0U;
        bits = (bits ^ sign) - sign;
    }
    return bits & bitmask(width);
}

// The sign extensions move the sign bit to the top and back: gcc and clang shift a negative value arithmetically.

/// Bits 0 to 23, sign-extended. The upper bits of `raw` do not matter.
constexpr std::int32_t signed24bto32b(unsigned int raw)
{
    return static_cast<std::int32_t>(raw << 8U) >> 8;
}

/// Bits 0 to 47, sign-extended. The upper bits of `raw` do not matter.
constexpr std::int64_t signed48bto64b(unsigned long long raw)
{
    return static_cast<std::int64_t>(raw << 16U) >> 16;
}

}
