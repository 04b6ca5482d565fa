#pragma once

#include <log/Export.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <type_traits>

namespace Halden::Tavro::Log
{

/// From most to least severe. The values cross library boundaries and never change.
enum class Severity : int
{
    Critical = 0,
    Error = 1,
    Warning = 2,
    Info = 3,
    Debug = 4,
    Trace = 5
};

/// One formatted message on its way to a sink.
struct Record
{
    std::chrono::system_clock::time_point time;
    Severity severity;
    std::string_view logger; ///< the Logger's name; empty for the free log call
    std::string_view text;   ///< the formatted message, valid during write() only
};

/// Where records go: a terminal, a file, the system's journal, a test's capture.
class HALDEN_CPPLOGGER_EXPORT LoggerImplIfc
{
public:
    virtual ~LoggerImplIfc();

    /// Called on the thread that logs, from many threads at once, with that thread's locks held: an implementation
    /// guards its own state, and neither logs, forks nor calls back into the code that logged. What it throws is
    /// dropped together with the record.
    ///
    /// A forked child may log as well, between fork(2) and execv(3), even when other threads were inside this call at
    /// the moment of the fork: an implementation with a lock holds it while the process forks, see pthread_atfork(3).
    virtual void write(Record const& record) = 0;
};

/// The default sink: hands each record to the process-wide sink, whichever that is at the time.
class HALDEN_CPPLOGGER_EXPORT LoggerImpl : public LoggerImplIfc
{
public:
    void write(Record const& record) override;
};

/// The process-wide settings: which severities are written, and where.
///
/// Usable from any thread, before main, until the process has ended, and in a forked child. At start Info and worse are
/// written, with the time in UTC, to standard error.
class HALDEN_CPPLOGGER_EXPORT LoggerProxy
{
public:
    static LoggerProxy& instance();

    /// One relaxed atomic read.
    bool isSeverityEnabled(Severity severity) const;

    /// @param mostVerbose the last severity that is still written
    void setThreshold(Severity mostVerbose);

    /// Records that are being written on other threads may still reach the previous sink.
    ///
    /// @param sink null restores the sink of the start; never a LoggerImpl, which would hand each record to itself
    /// @return the sink before
    std::shared_ptr<LoggerImplIfc> setSink(std::shared_ptr<LoggerImplIfc> sink);
};

namespace Detail
{

/// An object that holds nothing but characters, such as a std::array<char, 64>.
///
/// Only for those who call this library directly: code that may meet the one that it stands in for hands on pointers.
template <typename Value>
inline constexpr bool
    isTextBuffer = std::conjunction_v<std::is_class<Value>, std::is_trivially_copyable<Value>,
                                      std::is_standard_layout<Value>, std::negation<std::is_empty<Value>>> &&
                   alignof(Value) == 1;

template <typename Value>
auto carried(Value& value)
{
    if constexpr (isTextBuffer<Value>)
    {
        auto* const text = reinterpret_cast<char*>(&value);
        text[sizeof(Value) - 1] = '\0'; // whatever it holds, the text ends within it
        return static_cast<char const*>(text);
    }
    else
    {
        return value;
    }
}

}

/// A named source of messages, made to be a base of the class that logs.
class HALDEN_CPPLOGGER_EXPORT Logger
{
public:
    /// @param impl gets the records of this logger; null stands for a LoggerImpl
    Logger(std::string name, std::string unused, std::shared_ptr<LoggerImplIfc> impl);

    /// Writes one message, unless its severity is disabled: then nothing is formatted, allocated or locked.
    ///
    /// @param format as for printf(3); need not end in a NUL
    /// @param unused any function object, never called
    void tavroDoLog(Severity severity, std::string_view const& format, std::function<std::string()> const& unused,
                    ...) const;

    /// Chosen when a value is a character buffer for "%s", such as a std::array<char, 64>, by value: its text ends at
    /// its NUL, or with its last but one character. No variadic call could find such an object among its values.
    template <typename... Values>
    std::enable_if_t<(Detail::isTextBuffer<Values> || ...)>
    tavroDoLog(Severity severity, std::string_view const& format, std::function<std::string()> const& unused,
               Values... values) const
    {
        tavroDoLog(severity, format, unused, Detail::carried(values)...);
    }

private:
    std::string name;
    std::shared_ptr<LoggerImplIfc> impl;
};

/// The log call of code without a Logger: as Logger::tavroDoLog, without a name, to the process-wide sink.
HALDEN_CPPLOGGER_EXPORT void tavroDoLog(Severity severity, std::string_view const& format,
                                        std::function<std::string()> const& unused, ...);

/// As Logger::tavroDoLog for a character buffer.
template <typename... Values>
std::enable_if_t<(Detail::isTextBuffer<Values> || ...)> tavroDoLog(Severity severity, std::string_view const& format,
                                                                   std::function<std::string()> const& unused,
                                                                   Values... values)
{
    tavroDoLog(severity, format, unused, Detail::carried(values)...);
}

}
