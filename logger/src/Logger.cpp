#include <log/Logger.h>

#include "HoldWhileForking.h"
#include "StartUpSink.h"

#include <array>
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <utility>

namespace Halden::Tavro::Log
{

namespace
{

// Constant-initialised and without a destructor, so that logging works before main and during exit.
std::atomic<int> threshold{static_cast<int>(Severity::Info)};

bool isEnabled(Severity severity)
{
    return static_cast<int>(severity) <= threshold.load(std::memory_order_relaxed);
}

struct Sinks
{
    std::shared_ptr<LoggerImplIfc> const startUp = makeStartUpSink();
    std::shared_ptr<LoggerImplIfc> current = startUp;
};

std::mutex sinkMutex;

/// To be called under sinkMutex, which guards the result. Never destroyed: objects that live until the end of the
/// process may still log.
Sinks& processWideSinks()
{
    static Sinks* sinks = nullptr;
    if (sinks == nullptr)
    {
        sinks = new Sinks;
    }
    return *sinks;
}

std::shared_ptr<LoggerImplIfc> orDefault(std::shared_ptr<LoggerImplIfc> impl)
{
    if (impl == nullptr)
    {
        impl = std::make_shared<LoggerImpl>();
    }
    return impl;
}

[[gnu::constructor]] void keepSinkUsableInChildren()
{
    holdWhileForking<sinkMutex>();
}

/// Formats as vprintf(3) does, on the stack where format and text are of usual length.
class Text
{
public:
    // NOLINTNEXTLINE(cppcoreguidelines-pro-type-member-init): the buffers are filled by what follows
    Text(std::string_view format, va_list values)
    {
        if (format.find('%') == std::string_view::npos)
        {
            text = format.substr(0, format.find('\0'));
            return;
        }
        char const* const terminated = terminate(format);
        va_list again;
        va_copy(again, values);
        int const length = std::vsnprintf(usual.data(), usual.size(), terminated, values);
        if (length >= static_cast<int>(usual.size()))
        {
            large.resize(static_cast<std::size_t>(length));
            static_cast<void>(std::vsnprintf(large.data(), large.size() + 1, terminated, again));
            text = large;
        }
        else
        {
            text = length < 0 ? format : std::string_view(usual.data(), static_cast<std::size_t>(length));
        }
        va_end(again);
    }

    std::string_view view() const { return text; }

private:
    /// A copy that ends in a NUL, which the caller's view need not.
    char const* terminate(std::string_view format)
    {
        if (format.size() >= usualFormat.size())
        {
            largeFormat = format;
            return largeFormat.c_str();
        }
        usualFormat[format.copy(usualFormat.data(), format.size())] = '\0';
        return usualFormat.data();
    }

    std::array<char, 256> usualFormat;
    std::string largeFormat;
    std::array<char, 512> usual;
    std::string large;
    std::string_view text;
};

void write(LoggerImplIfc& sink, Severity severity, std::string_view name, std::string_view format, va_list values)
{
    try
    {
        Text const text(format, values);
        sink.write({std::chrono::system_clock::now(), severity, name, text.view()});
    }
    catch (...)
    {
        // A lost message is no reason to end a service, least of all while it reports a fault.
    }
}

}

LoggerImplIfc::~LoggerImplIfc() = default;

void LoggerImpl::write(Record const& record)
{
    std::shared_ptr<LoggerImplIfc> sink;
    {
        std::lock_guard const lock(sinkMutex);
        sink = processWideSinks().current;
    }
    sink->write(record);
}

LoggerProxy& LoggerProxy::instance()
{
    static LoggerProxy proxy;
    return proxy;
}

bool LoggerProxy::isSeverityEnabled(Severity severity) const
{
    return isEnabled(severity);
}

void LoggerProxy::setThreshold(Severity mostVerbose)
{
    threshold.store(static_cast<int>(mostVerbose), std::memory_order_relaxed);
}

std::shared_ptr<LoggerImplIfc> LoggerProxy::setSink(std::shared_ptr<LoggerImplIfc> sink)
{
    std::lock_guard const lock(sinkMutex);
    Sinks& sinks = processWideSinks();
    if (sink == nullptr)
    {
        sink = sinks.startUp;
    }
    return std::exchange(sinks.current, std::move(sink));
}

// NOLINTNEXTLINE(performance-unnecessary-value-param): as the callers of other libraries have it
Logger::Logger(std::string name, std::string /*unused*/, std::shared_ptr<LoggerImplIfc> impl)
    : name(std::move(name))
    , impl(orDefault(std::move(impl)))
{
}

// The callers of other libraries fix the signature, whose last named parameter is a reference: va_start(3) works with
// it on every compiler and target in use.
#pragma GCC diagnostic push
#ifdef __clang__
#pragma GCC diagnostic ignored "-Wvarargs"
#endif

void Logger::tavroDoLog(Severity severity, std::string_view const& format, std::function<std::string()> const& unused,
                        ...) const
{
    if (!isEnabled(severity))
    {
        return;
    }
    va_list values;
    va_start(values, unused);
    write(*impl, severity, name, format, values);
    va_end(values);
}

void tavroDoLog(Severity severity, std::string_view const& format, std::function<std::string()> const& unused, ...)
{
    if (!isEnabled(severity))
    {
        return;
    }
    va_list values;
    va_start(values, unused);
    LoggerImpl processWide;
    write(processWide, severity, {}, format, values);
    va_end(values);
}

#pragma GCC diagnostic pop

}
