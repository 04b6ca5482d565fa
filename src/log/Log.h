#pragma once

#include <log/Logger.h>

#include <array>
#include <cstddef>
#include <string_view>
#include <type_traits>

/// The one place that talks to the logging library.
///
/// TAVRO_LOG_TO(*this, Log::Severity::Debug, "%s has %d", name.c_str(), 5); // a class with a Logger base
/// TAVRO_LOG(Log::Severity::Debug, "~step");                                // everything else
///
/// The format is a literal: the compiler compares it with the values, and a mismatch is an error. A "%s" also takes a
/// std::array of char by value, whose text ends at its NUL. A format composed at run time holds no conversion
/// specifiers and goes to write() as it is.
namespace Halden::Tavro::Utils::LogFacade
{

/// What "%s" takes by value.
///
/// The stand-in in logger/ takes such objects itself, for those who call it directly. The logging library that it
/// stands in for need not, so nothing here relies on it.
template <typename Value>
inline constexpr bool isTextBuffer = false;

template <std::size_t size>
inline constexpr bool isTextBuffer<std::array<char, size>> = size > 0;

/// What the log call carries on every target. Everything else is cast by the caller, who knows the specifier: a bool or
/// a std::string have none, and 64 bits do not fit the "%lu" of a 32-bit target.
template <typename Value>
inline constexpr bool isCarried =
    isTextBuffer<Value> || std::is_same_v<Value, int> || std::is_same_v<Value, unsigned> ||
    std::is_same_v<Value, unsigned long> || std::is_same_v<Value, double> || std::is_same_v<Value, char const*> ||
    std::is_same_v<Value, char*>;

template <typename... Values>
constexpr void requireCarried()
{
    static_assert((isCarried<Values> && ...),
                  "a log call carries int, unsigned, unsigned long, double and char const*: cast what is none of them");
}

template <typename Value>
Value carried(Value& value)
{
    return value;
}

/// A buffer comes by value up to here and no further: where a variadic call puts such an object depends on the target,
/// and "%s" expects a pointer. That is one to the copy, which lives until the call has returned.
template <std::size_t size>
char const* carried(std::array<char, size>& buffer)
{
    buffer.back() = '\0'; // whatever it holds, the text ends within it
    return buffer.data();
}

/// Never called; lets the compiler check the values against the format.
[[gnu::format(printf, 1, 2)]] inline void checkFormat(char const* /*format*/, ...) {}

template <typename... Values>
void write(Log::Logger const& logger, Log::Severity severity, std::string_view format, Values... values)
{
    requireCarried<Values...>();
    logger.tavroDoLog(severity, format, {}, carried(values)...);
}

template <typename... Values>
void write(Log::Severity severity, std::string_view format, Values... values)
{
    requireCarried<Values...>();
    Log::tavroDoLog(severity, format, {}, carried(values)...);
}

}

// Macros, as only at the call itself the format is still a literal.
#define TAVRO_LOG_FIRST(first, ...) first

// The lambda knows the values by their types alone, as carried() leaves them.
#define TAVRO_LOG_CHECK(...)                                                                                           \
    [](auto const&, auto... tavroLogValues)                                                                            \
    {                                                                                                                  \
        ::Halden::Tavro::Utils::LogFacade::checkFormat(TAVRO_LOG_FIRST(__VA_ARGS__, 0),                                \
                                                       ::Halden::Tavro::Utils::LogFacade::carried(tavroLogValues)...); \
    }(__VA_ARGS__)

#define TAVRO_LOG_TO(logger, severity, ...)                                                                            \
    do                                                                                                                 \
    {                                                                                                                  \
        if (false)                                                                                                     \
        {                                                                                                              \
            TAVRO_LOG_CHECK(__VA_ARGS__);                                                                              \
        }                                                                                                              \
        ::Halden::Tavro::Utils::LogFacade::write(logger, severity, __VA_ARGS__);                                       \
    } while (false)

#define TAVRO_LOG(severity, ...)                                                                                       \
    do                                                                                                                 \
    {                                                                                                                  \
        if (false)                                                                                                     \
        {                                                                                                              \
            TAVRO_LOG_CHECK(__VA_ARGS__);                                                                              \
        }                                                                                                              \
        ::Halden::Tavro::Utils::LogFacade::write(severity, __VA_ARGS__);                                               \
    } while (false)
