#include <utils/TimeText.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <ctime>
#include <limits>

namespace Halden::Tavro::Utils
{

namespace
{

/// Puts zeros before a number of fewer digits than wanted.
void append(std::string& text, unsigned number, std::size_t wanted)
{
    std::array<char, std::numeric_limits<unsigned>::digits10 + 1> digits{};
    char const* const end = std::to_chars(digits.data(), digits.data() + digits.size(), number).ptr;
    auto const count = static_cast<std::size_t>(end - digits.data());
    text.append(wanted - std::min(wanted, count), '0').append(digits.data(), count);
}

void append(std::string& text, int number, std::size_t wanted)
{
    append(text, static_cast<unsigned>(number), wanted);
}

}

// By hand: a stream with std::put_time takes longer than all the rest.
std::string toUtcString(std::chrono::system_clock::time_point const& tp)
{
    auto const sinceEpoch = tp.time_since_epoch();
    auto const seconds = static_cast<std::time_t>(std::chrono::duration_cast<std::chrono::seconds>(sinceEpoch).count());
    auto const milliseconds = std::chrono::duration_cast<std::chrono::milliseconds>(sinceEpoch).count() % 1000;

    tzset(); // unlike localtime, localtime_r need not look at TZ
    std::tm brokenDown{};
    // kept: [local-time-with-z] local time, which readers of these texts have always got
    localtime_r(&seconds, &brokenDown);

    std::string text;
    text.reserve(sizeof "2024-03-05T07:08:09.045Z");
    append(text, brokenDown.tm_year + 1900, 4);
    text += '-';
    append(text, brokenDown.tm_mon + 1, 2);
    text += '-';
    append(text, brokenDown.tm_mday, 2);
    text += 'T';
    append(text, brokenDown.tm_hour, 2);
    text += ':';
    append(text, brokenDown.tm_min, 2);
    text += ':';
    append(text, brokenDown.tm_sec, 2);
    text += '.';
    // kept: [before-1970] the milliseconds are unsigned, no clock in use is before 1970
    append(text, static_cast<unsigned>(milliseconds), 3);
    text += 'Z';
    return text;
}

}
