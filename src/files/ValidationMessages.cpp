#include "files/ValidationMessages.h"

#include "log/Log.h"

#include <array>
#include <cstdarg>
#include <cstdio>

// The end of a process whose buffer would overflow. The C library exports it, but no header declares it.
extern "C" [[noreturn]] void __chk_fail(); // NOLINT(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)

namespace Halden::Tavro::Utils
{

namespace
{

using Buffer = std::array<char, 5000>;

/// vsprintf(3) with the C library's size test. It is called by name, for the headers ask for it in optimised builds
/// only. A sanitizer replaces it with a function that does not test, so the length is looked at before.
void format(Buffer& buffer, char const* format, va_list values)
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

}

void logValidationError(void* /*unused*/, char const* format, ...)
{
    static Buffer buffer;
    va_list values;
    va_start(values, format);
    Utils::format(buffer, format, values);
    va_end(values);
    TAVRO_LOG(Log::Severity::Error, "XML Validation ERROR: %s", buffer.data());
}

void logValidationWarning(void* /*unused*/, char const* format, ...)
{
    static Buffer buffer;
    va_list values;
    va_start(values, format);
    Utils::format(buffer, format, values);
    va_end(values);
    TAVRO_LOG(Log::Severity::Error, "XML Validation Warning: %s", buffer.data()); // kept: severity of an error
}

}
