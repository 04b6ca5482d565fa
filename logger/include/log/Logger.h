#pragma once

#include <log/Export.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <type_traits>

/// What services and library log with.
namespace Halden::Tavro::Log
{

/// From most to least severe. The values cross library boundaries and never change.
enum class Severity : int
{
    Critical = 0, ///< a thread ends
    Error = 1,    ///< something has failed
    Warning = 2,  ///< a request is ignored
    Info = 3,     ///< a milestone in the life of an object or thread
    Debug = 4,    ///< a detail of an operation
    Trace = 5     ///< what happens all the time
};

/// One formatted message on its way to a sink.
struct Record
{
    std::chrono::system_clock::time_point time; ///< when it was logged
    Severity severity;                          ///< how severe it is
    std::string_view logger;                    ///< the Logger's name; empty for the free log call
    std::string_view text;                      ///< the formatted message, valid during write() only
};

/// Where records go: a terminal, a file, the system's journal, a test's capture.
class HALDEN_CPPLOGGER_EXPORT LoggerImplIfc
{
public:
    virtual ~LoggerImplIfc();

    /// Writes one message. What it throws is dropped together with the message.
    ///
    /// Threads: called on the thread that logs, by many at once, with whatever locks that thread holds. So an
    /// implementation guards its own state, and neither logs, forks nor calls back into the code that logged.
    ///
    /// A forked child may log as well, between fork(2) and execv(3), even if other threads were inside this call at the
    /// moment of the fork. So an implementation with a lock holds it while the process forks, see pthread_atfork(3).
    virtual void write(Record const& record) = 0;
};

/// The default sink: hands each record to the sink that is the process-wide one at the time.
class HALDEN_CPPLOGGER_EXPORT LoggerImpl : public LoggerImplIfc
{
public:
    void write(Record const& record) override;
};

/// The process-wide settings: which severities are written, and where.
///
///     LoggerProxy::instance().setThreshold(Severity::Debug);
///     LoggerProxy::instance().setSink(std::make_shared<SpdlogSink>(spdlog::syslog_logger_mt("service")));
///
/// At start, Info and all that is more severe goes to standard error, with the time in UTC.
///
/// Threads: any, and at any time: before main, until the process has ended, and in a forked child.
class HALDEN_CPPLOGGER_EXPORT LoggerProxy
{
public:
    /// The one object.
    static LoggerProxy& instance();

    /// Whether messages of that severity are written. Costs one relaxed atomic read.
    bool isSeverityEnabled(Severity severity) const;

    /// Decides which severities are written.
    ///
    /// @param mostVerbose the least severe of them
    void setThreshold(Severity mostVerbose);

    /// Replaces the process-wide sink. Messages that other threads are writing may still reach the previous one.
    ///
    /// @param sink null restores the sink of the start; never a LoggerImpl, which would hand each record to itself
    /// @return the previous sink
    std::shared_ptr<LoggerImplIfc> setSink(std::shared_ptr<LoggerImplIfc> sink);
};

namespace Detail
{

/// Whether it is an object of nothing but characters, such as a `std::array<char, 64>`.
///
/// Only for code that is sure to run with this library: code that may run with the one that this one stands in for
/// passes pointers.
template <typename Value>
inline constexpr bool
    isTextBuffer = std::conjunction_v<std::is_class<Value>, std::is_trivially_copyable<Value>,
                                      std::is_standard_layout<Value>, std::negation<std::is_empty<Value>>> &&
                   alignof(Value) == 1;

/// The value, or a pointer to its text.
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
///
///     class Pump : private Log::Logger
///     {
///     public:
///         Pump() : Log::Logger("Pump", "", nullptr) {}
///         void start() { tavroDoLog(Log::Severity::Info, "started at %d rpm", {}, 1200); }
///     };
///
/// Threads: any.
class HALDEN_CPPLOGGER_EXPORT Logger
{
public:
    /// @param name   goes into each record
    /// @param unused not used
    /// @param impl   gets the records of this logger; null stands for a LoggerImpl
    Logger(std::string name, std::string unused, std::shared_ptr<LoggerImplIfc> impl);

    /// Writes one message, unless its severity is disabled: then nothing is formatted, allocated or locked.
    ///
    /// @param severity how severe it is
    /// @param format   as for printf(3); need not end in a NUL
    /// @param unused   any function object, never called
    void tavroDoLog(Severity severity, std::string_view const& format, std::function<std::string()> const& unused,
                    ...) const;

    /// The same where a value is a character buffer for "%s", such as a `std::array<char, 64>`, passed by value. Its
    /// text ends at its NUL, or with its last character but one. A variadic call could not find such an object among
    /// its values.
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

/// The log call of code without a Logger: as Logger::tavroDoLog(), without a name, to the process-wide sink.
HALDEN_CPPLOGGER_EXPORT void tavroDoLog(Severity severity, std::string_view const& format,
                                        std::function<std::string()> const& unused, ...);

/// As Logger::tavroDoLog() for a character buffer.
template <typename... Values>
std::enable_if_t<(Detail::isTextBuffer<Values> || ...)> tavroDoLog(Severity severity, std::string_view const& format,
                                                                   std::function<std::string()> const& unused,
                                                                   Values... values)
{
    tavroDoLog(severity, format, unused, Detail::carried(values)...);
}

}
