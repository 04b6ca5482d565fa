#include "src/Utf8.h"

#include "support/Fenced.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <string>
#include <vector>

namespace Halden::Tavro::Utils::Metrics
{

namespace
{

using TestSupport::Fenced;

std::string text(std::vector<unsigned> const& bytes)
{
    std::string text;
    for (unsigned const byte : bytes)
    {
        text.push_back(static_cast<char>(static_cast<unsigned char>(byte)));
    }
    return text;
}

TEST(Utf8Test, TextOfWholeCharactersIsUtf8)
{
    EXPECT_TRUE(isUtf8(""));
    EXPECT_TRUE(isUtf8("a\xc3\xa4\xe2\x82\xac\xf0\x9f\x98\x80z"));
    EXPECT_FALSE(isUtf8("a\xc3\xa4\xe2\x82"));
    EXPECT_FALSE(isUtf8("a\xa4z"));
}

TEST(Utf8Test, NothingIsReadBehindTheText)
{
    for (std::string const character : {"\xc3\xa4", "\xe2\x82\xac", "\xf0\x9f\x98\x80"})
    {
        for (std::size_t size = 1; size < character.size(); ++size)
        {
            Fenced const begin(character.data(), size);

            EXPECT_FALSE(isUtf8({begin.as<char>(), size}));
        }
    }
}

TEST(Utf8Test, EachByteOfACharacterHasItsRange)
{
    // Those of the first two bytes; the others are 80 to bf.
    struct Range
    {
        unsigned firstFrom, firstTo, secondFrom, secondTo;
        std::size_t length;
    };
    for (auto const& range :
         {Range{0xc2, 0xdf, 0x80, 0xbf, 2}, Range{0xe0, 0xe0, 0xa0, 0xbf, 3}, Range{0xe1, 0xec, 0x80, 0xbf, 3},
          Range{0xed, 0xed, 0x80, 0x9f, 3}, Range{0xee, 0xef, 0x80, 0xbf, 3}, Range{0xf0, 0xf0, 0x90, 0xbf, 4},
          Range{0xf1, 0xf3, 0x80, 0xbf, 4}, Range{0xf4, 0xf4, 0x80, 0x8f, 4}})
    {
        for (unsigned const first : {range.firstFrom, range.firstTo})
        {
            std::string const whole = text({first, range.secondFrom, 0x80, 0xbf}).substr(0, range.length);
            for (std::size_t place = 1; place < range.length; ++place)
            {
                unsigned const from = place == 1 ? range.secondFrom : 0x80;
                unsigned const to = place == 1 ? range.secondTo : 0xbf;
                for (unsigned const byte : {from - 1, from, to, to + 1})
                {
                    std::string changed = whole;
                    changed[place] = text({byte})[0];
                    EXPECT_EQ(isUtf8(changed), byte >= from && byte <= to) << testing::PrintToString(changed);
                }
            }
        }
    }
    EXPECT_FALSE(isUtf8("\xc1\x80"));
    EXPECT_FALSE(isUtf8("\xf5\x80\x80\x80"));
}

}

}
