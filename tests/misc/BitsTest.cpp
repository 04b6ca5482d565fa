#include <utils/Bits.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <iterator>
#include <random>
#include <type_traits>
#include <vector>

namespace Halden::Tavro::Utils::Bits
{

namespace
{

// Arithmetic in place of bit operations: powers of two, remainders and differences.

std::int64_t powerOfTwo(unsigned int exponent)
{
    std::int64_t result = 1;
    for (unsigned int i = 0; i < exponent; ++i)
    {
        result *= 2;
    }
    return result;
}

std::int64_t modelMask(unsigned int width)
{
    return powerOfTwo(std::min(width, 32U)) - 1;
}

std::int64_t modelTwoComplement(int value, unsigned int width)
{
    std::int64_t const modulus = powerOfTwo(std::min(width, 32U));
    return (value % modulus + modulus) % modulus;
}

std::int64_t modelSigned(std::int64_t low, unsigned int width)
{
    return low < powerOfTwo(width - 1) ? low : low - powerOfTwo(width);
}

// A constant expression cannot have undefined behaviour.
static_assert(bitmask(0) == 0 && bitmask(32) == 4294967295U && bitmask(40) == 4294967295U);
static_assert(two_complement(INT_MIN, 31) == 0 && two_complement(INT_MIN, 32) == 2147483648U &&
              two_complement(-1, UINT_MAX) == 4294967295U);
static_assert(signed24bto32b(UINT_MAX) == -1 && signed48bto64b(ULLONG_MAX) == -1);

static_assert(std::is_same_v<decltype(bitmask(0U)), unsigned int>);
static_assert(std::is_same_v<decltype(two_complement(0, 0U)), unsigned int>);
static_assert(std::is_same_v<decltype(signed24bto32b(0U)), std::int32_t>);
static_assert(std::is_same_v<decltype(signed48bto64b(0ULL)), std::int64_t>);

TEST(BitsTest, BitmaskSetsThatManyLowBits)
{
    EXPECT_EQ(bitmask(0), 0U);
    EXPECT_EQ(bitmask(1), 1U);
    EXPECT_EQ(bitmask(8), 255U);
    EXPECT_EQ(bitmask(31), 2147483647U);
    EXPECT_EQ(bitmask(32), 4294967295U);
}

TEST(BitsTest, BitmaskAgreesWithTheModelAtEveryWidth)
{
    for (unsigned int width = 0; width <= 40; ++width)
    {
        EXPECT_EQ(bitmask(width), modelMask(width)) << width;
    }
}

TEST(BitsTest, BitmaskBeyondWidth32IsThatOfWidth32)
{
    for (unsigned int const width : {33U, 63U, 64U, 65U, 0x8000'0000U, UINT_MAX})
    {
        EXPECT_EQ(bitmask(width), 4294967295U) << width;
    }
}

TEST(BitsTest, TwoComplementEncodesTheValueInTheWidth)
{
    EXPECT_EQ(two_complement(-1, 8), 255U);
    EXPECT_EQ(two_complement(-128, 8), 128U);
    EXPECT_EQ(two_complement(5, 4), 5U);
    EXPECT_EQ(two_complement(-3, 12), 4093U);
}

// kept: a value that does not fit loses its upper bits, and the sign with them
TEST(BitsTest, TwoComplementCutsOffWhatDoesNotFit)
{
    EXPECT_EQ(two_complement(21, 4), 5U);
    EXPECT_EQ(two_complement(-129, 8), 127U);
    EXPECT_EQ(two_complement(-1, 0), 0U);
}

TEST(BitsTest, TwoComplementAgreesWithTheModelAtEveryWidth)
{
    std::vector<int> values{INT_MIN, INT_MIN + 1, INT_MAX, INT_MAX - 1};
    for (int value = -1030; value <= 1030; ++value)
    {
        values.push_back(value);
    }
    for (unsigned int exponent = 11; exponent < 31; ++exponent)
    {
        auto const power = static_cast<int>(powerOfTwo(exponent));
        values.insert(values.end(), {power - 1, power, power + 1, -power - 1, -power, -power + 1});
    }
    std::mt19937 random(1);
    std::uniform_int_distribution<int> any(INT_MIN, INT_MAX);
    std::generate_n(std::back_inserter(values), 20'000, [&] { return any(random); });

    for (unsigned int width = 0; width <= 40; ++width)
    {
        for (int const value : values)
        {
            ASSERT_EQ(two_complement(value, width), modelTwoComplement(value, width)) << value << " in " << width;
        }
    }
}

TEST(BitsTest, TwoComplementBeyondWidth32IsThatOfWidth32)
{
    for (unsigned int const width : {33U, 64U, 0x8000'0000U, UINT_MAX})
    {
        EXPECT_EQ(two_complement(-2, width), 4294967294U) << width;
        EXPECT_EQ(two_complement(INT_MIN, width), 2147483648U) << width;
        EXPECT_EQ(two_complement(INT_MAX, width), 2147483647U) << width;
    }
}

TEST(BitsTest, Signed24ExtendsBit23)
{
    EXPECT_EQ(signed24bto32b(8388607), 8388607);
    EXPECT_EQ(signed24bto32b(8388608), -8388608);
    EXPECT_EQ(signed24bto32b(16777215), -1);
    EXPECT_EQ(signed24bto32b(0), 0);
}

TEST(BitsTest, Signed24AgreesWithTheModelForEveryRawValueWhateverTheUpperBits)
{
    for (unsigned int raw = 0; raw < 1U << 24U; ++raw)
    {
        auto const expected = modelSigned(raw, 24);
        bool const agrees = signed24bto32b(raw) == expected && signed24bto32b(raw + 0xFF00'0000U) == expected &&
                            signed24bto32b(raw + 0xA500'0000U) == expected;
        ASSERT_TRUE(agrees) << raw;
    }
}

TEST(BitsTest, Signed48ExtendsBit47)
{
    EXPECT_EQ(signed48bto64b(140737488355327ULL), 140737488355327);
    EXPECT_EQ(signed48bto64b(140737488355328ULL), -140737488355328);
    EXPECT_EQ(signed48bto64b(281474976710655ULL), -1);
    EXPECT_EQ(signed48bto64b(0), 0);
}

TEST(BitsTest, Signed48AgreesWithTheModelWhateverTheUpperBits)
{
    std::vector<std::int64_t> values;
    for (unsigned int exponent = 0; exponent <= 48; ++exponent)
    {
        for (std::int64_t const distance : {-2, -1, 0, 1})
        {
            values.push_back((powerOfTwo(exponent) + distance + powerOfTwo(48)) % powerOfTwo(48));
        }
    }
    std::mt19937_64 random(2);
    std::uniform_int_distribution<std::int64_t> any(0, powerOfTwo(48) - 1);
    std::generate_n(std::back_inserter(values), 1'000'000, [&] { return any(random); });

    for (std::int64_t const low : values)
    {
        auto const raw = static_cast<unsigned long long>(low);
        for (unsigned long long const upper :
             {0x0000'0000'0000'0000ULL, 0xFFFF'0000'0000'0000ULL, 0xA5A5'0000'0000'0000ULL, 0x8000'0000'0000'0000ULL})
        {
            ASSERT_EQ(signed48bto64b(raw + upper), modelSigned(low, 48)) << raw << " with " << upper;
        }
    }
}

}

}
