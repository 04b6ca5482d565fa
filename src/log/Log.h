#pragma once

#include <log/Logger.h>

#include <string_view>
#include <type_traits>

/// The one place that talks to the logging library.
///
/// TAVRO_LOG_TO(*this, Log::Severity::Debug, "%s has %d", name.c_str(), 5); // a class with a Logger base
/// TAVRO_LOG(Log::Severity::Debug, "~step");                                // everything else
///
/// The format is a literal: the compiler compares it with the values, and a mismatch is an error. A format composed at
/// run time holds no conversion specifiers and goes to write() as it is.
namespace Halden::Tavro::Utils::LogFacade
{

/// What the variadic log call carries unchanged on every target. Everything else is cast by the caller, who knows the
/// specifier: a bool or a std::string have none, and 64 bits do not fit the "%lu" of a 32-bit target.
template <typename Value>
inline constexpr bool isCarried =
    std::is_same_v<Value, int> || std::is_same_v<Value, unsigned> || std::is_same_v<Value, unsigned long> ||
    std::is_same_v<Value, double> || std::is_same_v<Value, char const*> || std::is_same_v<Value, char*>;

template <typename... Values>
constexpr void requireCarried()
{
    static_assert((isCarried<Values> && ...),
                  "a log call carries int, unsigned, unsigned long, double and char const*: cast what is none of them");
}

/// Never called; lets the compiler check the values against the format.
[[gnu::format(printf, 1, 2)]] inline void checkFormat(char const* /*format*/, ...) {}

template <typename... Values>
void write(Log::Logger const& logger, Log::Severity severity, std::string_view format, Values... values)
{
    requireCarried<Values...>();
    logger.tavroDoLog(severity, format, {}, values...);
}

template <typename... Values>
void write(Log::Severity severity, std::string_view format, Values... values)
{
    requireCarried<Values...>();
    Log::tavroDoLog(severity, format, {}, values...);
}

}

// Macros, for only at the call itself is the format still a literal.
#define TAVRO_LOG_TO(logger, severity, ...)                                                                            \
    do                                                                                                                 \
    {                                                                                                                  \
        if (false)                                                                                                     \
        {                                                                                                              \
            ::Halden::Tavro::Utils::LogFacade::checkFormat(__VA_ARGS__);                                               \
        }                                                                                                              \
        ::Halden::Tavro::Utils::LogFacade::write(logger, severity, __VA_ARGS__);                                       \
    } while (false)

#define TAVRO_LOG(severity, ...)                                                                                       \
    do                                                                                                                 \
    {                                                                                                                  \
        if (false)                                                                                                     \
        {                                                                                                              \
            ::Halden::Tavro::Utils::LogFacade::checkFormat(__VA_ARGS__);                                               \
        }                                                                                                              \
        ::Halden::Tavro::Utils::LogFacade::write(severity, __VA_ARGS__);                                               \
    } while (false)
