#include "StartUpSink.h"

#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <ratio>
#include <string>

namespace Halden::Tavro::Log
{

namespace
{

using Days = std::chrono::duration<std::int64_t, std::ratio<86'400>>;

struct Date
{
    int year;
    int month;
    int day;
};

/// By hand, as gmtime_r(3) and localtime_r(3) take a lock. Years begin in March, so that a leap day is the last one.
Date toDate(Days sinceEpoch)
{
    constexpr std::int64_t daysIn400Years = 146'097;
    constexpr std::int64_t epoch = 719'468; // in days since March 1st of year 0
    auto const era = std::chrono::floor<std::chrono::duration<std::int64_t, std::ratio<86'400 * daysIn400Years>>>(
        sinceEpoch + Days(epoch));
    std::int64_t const dayOfEra = (sinceEpoch + Days(epoch) - era).count();
    std::int64_t const yearOfEra =
        (dayOfEra - dayOfEra / 1'460 + dayOfEra / 36'524 - dayOfEra / (daysIn400Years - 1)) / 365;
    std::int64_t const dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
    std::int64_t const monthFromMarch = (5 * dayOfYear + 2) / 153;
    std::int64_t const day = dayOfYear - (153 * monthFromMarch + 2) / 5 + 1;
    std::int64_t const month = monthFromMarch < 10 ? monthFromMarch + 3 : monthFromMarch - 9;
    std::int64_t const year = era.count() * 400 + yearOfEra + (month <= 2 ? 1 : 0);
    return {static_cast<int>(year), static_cast<int>(month), static_cast<int>(day)};
}

char const* nameOf(Severity severity)
{
    switch (severity)
    {
    case Severity::Critical:
        return "critical";
    case Severity::Error:
        return "error";
    case Severity::Warning:
        return "warning";
    case Severity::Info:
        return "info";
    case Severity::Debug:
        return "debug";
    case Severity::Trace:
        break;
    }
    return "trace";
}

/// Time in UTC, severity and thread.
std::string prefixOf(Record const& record)
{
    auto const time = std::chrono::floor<std::chrono::milliseconds>(record.time);
    auto const day = std::chrono::floor<Days>(time);
    Date const date = toDate(day.time_since_epoch());
    int const milliseconds = static_cast<int>((time - day).count());
    std::array<char, 128> text{};
    static_cast<void>(std::snprintf(text.data(), text.size(), "%04d-%02d-%02d %02d:%02d:%02d.%03d %s %d ", date.year,
                                    date.month, date.day, milliseconds / 3'600'000, milliseconds / 60'000 % 60,
                                    milliseconds / 1'000 % 60, milliseconds % 1'000, nameOf(record.severity),
                                    gettid()));
    return text.data();
}

void writeAll(std::string_view text)
{
    while (!text.empty())
    {
        ssize_t const count = ::write(STDERR_FILENO, text.data(), text.size());
        if (count >= 0)
        {
            text.remove_prefix(static_cast<std::size_t>(count));
        }
        else if (errno != EINTR)
        {
            return; // nobody is left to be told
        }
    }
}

}

void StartUpSink::write(Record const& record)
{
    std::string line = prefixOf(record);
    if (!record.logger.empty())
    {
        line.append("[").append(record.logger).append("] ");
    }
    line.append(record.text).append("\n");
    writeAll(line);
}

}
