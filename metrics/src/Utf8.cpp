#include "Utf8.h"

#include <algorithm>
#include <cstddef>

namespace Halden::Tavro::Utils::Metrics
{

namespace
{

/// How the first two bytes of a character tell its length.
struct Form
{
    unsigned char firstFrom;
    unsigned char firstTo;
    unsigned char secondFrom;
    unsigned char secondTo;
    std::size_t length;
};

/// Those of more than one byte, from the Unicode standard's table of well-formed sequences.
constexpr Form forms[] = {
    {0xc2, 0xdf, 0x80, 0xbf, 2}, {0xe0, 0xe0, 0xa0, 0xbf, 3}, {0xe1, 0xec, 0x80, 0xbf, 3}, {0xed, 0xed, 0x80, 0x9f, 3},
    {0xee, 0xef, 0x80, 0xbf, 3}, {0xf0, 0xf0, 0x90, 0xbf, 4}, {0xf1, 0xf3, 0x80, 0xbf, 4}, {0xf4, 0xf4, 0x80, 0x8f, 4},
};

bool isWithin(char letter, unsigned char from, unsigned char to)
{
    auto const byte = static_cast<unsigned char>(letter);
    return byte >= from && byte <= to;
}

/// @return of the character that the text begins with; 0 when it begins with none
std::size_t lengthOfFirst(std::string_view text)
{
    if (isWithin(text.front(), 0x00, 0x7f))
    {
        return 1;
    }
    for (Form const& form : forms)
    {
        if (isWithin(text.front(), form.firstFrom, form.firstTo))
        {
            bool const isWhole = text.size() >= form.length && isWithin(text[1], form.secondFrom, form.secondTo) &&
                                 std::all_of(text.begin() + 2, text.begin() + static_cast<std::ptrdiff_t>(form.length),
                                             [](char letter) { return isWithin(letter, 0x80, 0xbf); });
            return isWhole ? form.length : 0;
        }
    }
    return 0;
}

}

bool isUtf8(std::string_view text)
{
    while (!text.empty())
    {
        std::size_t const length = lengthOfFirst(text);
        if (length == 0)
        {
            return false;
        }
        text.remove_prefix(length);
    }
    return true;
}

}
