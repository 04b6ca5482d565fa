#include <utils/StringConversions.h>

#include "misc/StringConversionsModel.h"

#include <gmock/gmock.h>

#include <cstddef>
#include <random>
#include <string>
#include <vector>

namespace Halden::Tavro::Utils
{

namespace
{

using namespace TestSupport;
using testing::PrintToString;

std::string toUint64(std::string const& text)
{
    return outcomeOf([&] { return to_uint64(text); });
}

std::string toUint8(std::string const& text)
{
    return outcomeOf([&] { return to_uint8(text); });
}

/// Numbers as they may and may not be written: blanks, a sign, a prefix, up to 22 digits, trailing characters.
class TextGenerator
{
public:
    std::string next()
    {
        std::string text = oneOf({"", "", "", " ", "\t\n", "  \v"});
        text += oneOf({"", "", "", "+", "-", "+-"});
        text += oneOf({"", "", "0x", "0X", "0b", "0B", "0", "00"});
        auto const digits = oneOf({"0123456789", "0123456789", "01234567", "0123456789abcdefABCDEF", "01"});
        for (int count = upTo(1) == 0 ? upTo(3) : upTo(22); count > 0; --count)
        {
            text += digits[static_cast<std::size_t>(upTo(static_cast<int>(digits.size()) - 1))];
        }
        text += oneOf({"", "", "", " ", "abc", "x", ".5", "-1", "e3",
                       std::string("\0"
                                   "7",
                                   2)});
        return text;
    }

private:
    int upTo(int most) { return std::uniform_int_distribution<int>(0, most)(random); }

    std::string oneOf(std::vector<std::string> const& choices)
    {
        return choices[static_cast<std::size_t>(upTo(static_cast<int>(choices.size()) - 1))];
    }

    std::mt19937 random{7};
};

TEST(StringConversionsTest, ToUint64SelectsTheBaseByThePrefix)
{
    EXPECT_EQ(to_uint64("16"), 16U);
    EXPECT_EQ(to_uint64("0x10"), 16U);
    EXPECT_EQ(to_uint64("0XfF"), 255U);
    EXPECT_EQ(to_uint64("010"), 8U);
    EXPECT_EQ(to_uint64("0"), 0U);
}

TEST(StringConversionsTest, ToUint64ConvertsTheGreatestValueAndNoneBeyond)
{
    EXPECT_EQ(to_uint64("18446744073709551615"), 18446744073709551615ULL);
    EXPECT_EQ(to_uint64("0xFFFFFFFFFFFFFFFF"), 18446744073709551615ULL);
    EXPECT_EQ(toUint64("18446744073709551616"), "out_of_range stoull");
}

TEST(StringConversionsTest, ToUint64ConvertsMoreThan32Bits)
{
    EXPECT_EQ(to_uint64("4294967296"), 4294967296ULL);
}

TEST(StringConversionsTest, ToUint64RefusesAnEmptyText)
{
    EXPECT_EQ(toUint64(""), "invalid_argument Cannot convert empty string to uint64");
}

// kept: "value", and "values" below; who looks for a text knows it as it is
TEST(StringConversionsTest, ToUint64RefusesALeadingMinusSign)
{
    EXPECT_EQ(toUint64("-1"), "invalid_argument Cannot convert negative value to uint64");
    EXPECT_EQ(toUint64("-0"), "invalid_argument Cannot convert negative value to uint64");
    EXPECT_EQ(toUint64("-"), "invalid_argument Cannot convert negative value to uint64");
}

// kept: only the very first character is looked at; services may hand over such texts
TEST(StringConversionsTest, ToUint64WrapsANegativeValueBehindBlanks)
{
    EXPECT_EQ(to_uint64(" -1"), 18446744073709551615ULL);
    EXPECT_EQ(to_uint64("\t-16"), 18446744073709551600ULL);
}

TEST(StringConversionsTest, ToUint64RefusesATextWithoutDigits)
{
    EXPECT_EQ(toUint64("abc"), "invalid_argument stoull");
    EXPECT_EQ(toUint64("  "), "invalid_argument stoull");
    EXPECT_EQ(toUint64("+"), "invalid_argument stoull");
}

TEST(StringConversionsTest, ToUint64IgnoresTrailingCharacters)
{
    EXPECT_EQ(to_uint64("12abc"), 12U);
    EXPECT_EQ(to_uint64("0xg"), 0U);
    EXPECT_EQ(to_uint64("089"), 0U);
}

TEST(StringConversionsTest, ToUint64KnowsNoBinaryNumbers)
{
    EXPECT_EQ(to_uint64("0b1"), 0U);
    EXPECT_EQ(to_uint64("0B1C"), 0U);
    EXPECT_EQ(to_uint64(" +0b11"), 0U);
    EXPECT_EQ(to_uint64("0x0b1"), 177U);
}

TEST(StringConversionsTest, ToUint64ReadsAPrefixWithoutHexadecimalDigitsAsZero)
{
    EXPECT_EQ(to_uint64("0x"), 0U);
    EXPECT_EQ(to_uint64("0X-1"), 0U);
    EXPECT_EQ(to_uint64("0x 1"), 0U);
    EXPECT_EQ(to_uint64("0x0x1"), 0U);
}

TEST(StringConversionsTest, ToUint64SkipsTheSixBlanksOfAsciiAndNothingElse)
{
    for (int code = 0; code < 256; ++code)
    {
        char const character = static_cast<char>(code);
        bool const isBlank = std::string(" \t\n\v\f\r").find(character) != std::string::npos;
        bool const isSignOrDigit = std::string("+-0123456789").find(character) != std::string::npos;
        if (!isSignOrDigit)
        {
            EXPECT_EQ(toUint64(std::string(1, character) + "5"), isBlank ? "5" : "invalid_argument stoull") << code;
        }
    }
}

TEST(StringConversionsTest, ToUint64EndsAtANul)
{
    std::string const nul(1, '\0');

    EXPECT_EQ(to_uint64("1" + nul + "2"), 1U);
    EXPECT_EQ(to_uint64("0x" + nul + "2"), 0U);
    EXPECT_EQ(toUint64(" " + nul + "2"), "invalid_argument stoull");
    EXPECT_EQ(toUint64("+" + nul + "2"), "invalid_argument stoull");
}

TEST(StringConversionsTest, ToUint64AgreesWithTheCLibrary)
{
    TextGenerator generator;
    for (int i = 0; i < 100'000; ++i)
    {
        auto const text = generator.next();
        ASSERT_EQ(toUint64(text), expectedUint64(text)) << '"' << text << '"';
    }
}

TEST(StringConversionsTest, BothAgreeWithTheCLibraryForAllShortTexts)
{
    std::vector<std::string> texts{""};
    for (std::size_t i = 0; texts.size() < 54'241; ++i) // all texts of up to four of fifteen characters
    {
        for (char const last : std::string(" \n+-01789xXbBfg"))
        {
            texts.push_back(texts[i] + last);
        }
    }

    for (auto const& text : texts)
    {
        ASSERT_EQ(toUint64(text), expectedUint64(text)) << PrintToString(text);
        ASSERT_EQ(toUint8(text), expectedUint8(text)) << PrintToString(text);
    }
}

/// The bounds of an unsigned long long and of an int in all bases, both signs, with many leading zeros, and each one's
/// neighbours.
TEST(StringConversionsTest, BothAgreeWithTheCLibraryAroundTheBounds)
{
    for (std::string const bound : {"184467440737095516", "0xFFFFFFFFFFFFFFF", "0x1000000000000000",
                                    "0177777777777777777777", "020000000000000000000", "214748364", "0x7FFFFFF",
                                    "0x8000000", "0177777777", "02000000000", "25", "0xF", "0x10", "037", "040"})
    {
        for (std::string const sign : {"", "+", " -", "-"})
        {
            for (char const last : std::string("0123456789ABCDEFabcdef"))
            {
                auto const text = sign + bound + last;
                EXPECT_EQ(toUint64(text), expectedUint64(text)) << text;
                EXPECT_EQ(toUint8(text), expectedUint8(text)) << text;
            }
        }
    }
    for (std::string const digits : {"1777777777777777777777", "2000000000000000000000", "7", "400"})
    {
        auto const text = std::string(200, '0') + digits;
        EXPECT_EQ(toUint64(text), expectedUint64(text)) << text;
        EXPECT_EQ(toUint8(text), expectedUint8(text)) << text;
    }
}

TEST(StringConversionsTest, ToUint8SelectsTheBaseByThePrefix)
{
    EXPECT_EQ(to_uint8("16"), 16);
    EXPECT_EQ(to_uint8("0x10"), 16);
    EXPECT_EQ(to_uint8("010"), 8);
}

TEST(StringConversionsTest, ToUint8ConvertsTheGreatestValueAndNoneBeyond)
{
    EXPECT_EQ(to_uint8("255"), 255);
    EXPECT_EQ(toUint8("256"), "overflow_error The provided string overflows uint8");
    EXPECT_EQ(toUint8("0x100"), "overflow_error The provided string overflows uint8");
    EXPECT_EQ(toUint8("2147483647"), "overflow_error The provided string overflows uint8");
}

TEST(StringConversionsTest, ToUint8RefusesWhatDoesNotFitAnInt)
{
    EXPECT_EQ(toUint8("2147483648"), "out_of_range stoi");
    EXPECT_EQ(toUint8("-2147483649"), "out_of_range stoi");
    EXPECT_EQ(toUint8("18446744073709551617"), "out_of_range stoi");
}

TEST(StringConversionsTest, ToUint8RefusesAnEmptyText)
{
    EXPECT_EQ(toUint8(""), "invalid_argument Cannot convert empty string to uint8");
}

// kept: as above
TEST(StringConversionsTest, ToUint8RefusesNegativeValues)
{
    EXPECT_EQ(toUint8("-1"), "invalid_argument Cannot convert negative values to uint8");
    EXPECT_EQ(toUint8(" -1"), "invalid_argument Cannot convert negative values to uint8");
    EXPECT_EQ(toUint8("-2147483648"), "invalid_argument Cannot convert negative values to uint8");
}

// kept: the value counts, not the sign
TEST(StringConversionsTest, ToUint8AcceptsANegativeZero)
{
    EXPECT_EQ(to_uint8("-0"), 0);
}

TEST(StringConversionsTest, ToUint8RefusesATextWithoutDigits)
{
    EXPECT_EQ(toUint8("abc"), "invalid_argument stoi");
    EXPECT_EQ(toUint8("-"), "invalid_argument stoi");
}

TEST(StringConversionsTest, ToUint8IgnoresTrailingCharacters)
{
    EXPECT_EQ(to_uint8("12abc"), 12);
}

TEST(StringConversionsTest, ToUint8KnowsNoBinaryNumbers)
{
    EXPECT_EQ(to_uint8("0b1"), 0);
    EXPECT_EQ(to_uint8("-0B11"), 0);
}

TEST(StringConversionsTest, ToUint8AgreesWithTheCLibrary)
{
    TextGenerator generator;
    for (int i = 0; i < 100'000; ++i)
    {
        auto const text = generator.next();
        ASSERT_EQ(toUint8(text), expectedUint8(text)) << '"' << text << '"';
    }
}

TEST(StringConversionsTest, MismatchIsTheLongerTextsRemainder)
{
    EXPECT_EQ(mismatchString("abcdef", "abc"), "def");
    EXPECT_EQ(mismatchString("abc", "abcdef"), "def");
    EXPECT_EQ(mismatchString("abX", "abcdef"), "cdef");
    EXPECT_EQ(mismatchString("abcdef", "abX"), "cdef");
    EXPECT_EQ(mismatchString("abc", ""), "abc");
}

TEST(StringConversionsTest, MismatchOfEqualTextsIsEmpty)
{
    EXPECT_EQ(mismatchString("", ""), "");
    EXPECT_EQ(mismatchString("abc", "abc"), "");
}

TEST(StringConversionsTest, MismatchOfTextsOfEqualLengthIsTheFirstOnes)
{
    EXPECT_EQ(mismatchString("abX", "abY"), "X");
    EXPECT_EQ(mismatchString("abY", "abX"), "Y");
}

TEST(StringConversionsTest, MismatchTakesANulForTheEndOfTheShorterText)
{
    std::string const nul(1, '\0');

    EXPECT_EQ(mismatchString("abc" + nul, "abc"), "");
    EXPECT_EQ(mismatchString("abc" + nul + "x", "abc"), "x");
    EXPECT_EQ(mismatchString("abc" + nul + nul, "abc"), nul);
}

TEST(StringConversionsTest, MismatchAgreesWithTheModelForAllShortTexts)
{
    std::vector<std::string> texts{""};
    for (std::size_t i = 0; texts.size() < 121; ++i) // all texts of up to four of three characters
    {
        for (char const last : {'a', 'b', '\0'})
        {
            texts.push_back(texts[i] + last);
        }
    }
    std::string const common(20, 'c'); // puts the texts on the heap, where reading too far is seen
    for (auto const& a : texts)
    {
        for (auto const& b : texts)
        {
            ASSERT_EQ(mismatchString(a, b), expectedMismatch(a, b)) << PrintToString(a) << " and " << PrintToString(b);
            ASSERT_EQ(mismatchString(common + a, common + b), expectedMismatch(a, b))
                << PrintToString(a) << " and " << PrintToString(b);
        }
    }
}

TEST(StringConversionsTest, FromCStringOfNullIsEmpty)
{
    EXPECT_EQ(fromCString(nullptr), "");
}

TEST(StringConversionsTest, FromCStringEndsAtTheFirstNul)
{
    EXPECT_EQ(fromCString(""), "");
    EXPECT_EQ(fromCString("abc\0def"), "abc");
}

}

}
