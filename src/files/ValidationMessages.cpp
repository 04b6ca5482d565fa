#include "files/ValidationMessages.h"

#include "build/Hardened.h"
#include "log/Log.h"

#include <array>
#include <cstdarg>
#include <cstdio>

// The end of a process whose buffer would overflow. The C library exports it, but no header declares it.
extern "C" [[noreturn]] void __chk_fail(); // NOLINT(bugprone-reserved-identifier)

namespace Halden::Tavro::Utils
{

namespace
{

using Buffer = std::array<char, 5000>;

/// vsprintf(3) with the C library's size test. It is called by name, as the headers use it in optimised builds only. A
/// sanitizer replaces it by a function without that test, so the length is checked before.
void formatOrEndProcess(Buffer& buffer, char const* format, va_list values)
{
    va_list again;
    va_copy(again, values);
    int const length = std::vsnprintf(nullptr, 0, format, again);
    va_end(again);
    if (length >= static_cast<int>(buffer.size()))
    {
        __chk_fail();
    }
    __builtin___vsprintf_chk(buffer.data(), 1, buffer.size(), format, values);
}

/// As vsnprintf(3) cuts it.
void formatAndCut(Buffer& buffer, char const* format, va_list values)
{
    if (std::vsnprintf(buffer.data(), buffer.size(), format, values) < 0)
    {
        buffer.front() = '\0';
    }
}

void format(Buffer& buffer, char const* format, va_list values)
{
    if constexpr (hardened)
    {
        formatAndCut(buffer, format, values);
    }
    else
    {
        // kept: [long-validation-message] a message is logged whole or not at all
        formatOrEndProcess(buffer, format, values);
    }
}

}

void logValidationError(void* /*unused*/, char const* format, ...)
{
    static Buffer shared;
    Buffer own;
    Buffer& buffer = hardened ? own : shared;
    va_list values;
    va_start(values, format);
    Utils::format(buffer, format, values);
    va_end(values);
    TAVRO_LOG(Log::Severity::Error, "XML Validation ERROR: %s", buffer.data());
}

void logValidationWarning(void* /*unused*/, char const* format, ...)
{
    static Buffer shared;
    Buffer own;
    Buffer& buffer = hardened ? own : shared;
    va_list values;
    va_start(values, format);
    Utils::format(buffer, format, values);
    va_end(values);
    // kept: [warnings-at-error] at the severity of an error, where services look for what is wrong with a document
    TAVRO_LOG(Log::Severity::Error, "XML Validation Warning: %s", buffer.data());
}

}
