#include <log/SpdlogSink.h>

#include "HoldWhileForking.h"

#include <spdlog/logger.h>

#include <mutex>
#include <utility>

namespace Halden::Tavro::Log
{

namespace
{

/// Held around spdlog, whose own locks a forked child could find held by a thread that it does not have.
std::mutex spdlogMutex;

[[gnu::constructor]] void keepSpdlogUsableInChildren()
{
    holdWhileForking<spdlogMutex>();
}

spdlog::level::level_enum toSpdlogLevel(Severity severity)
{
    switch (severity)
    {
    case Severity::Critical:
        return spdlog::level::critical;
    case Severity::Error:
        return spdlog::level::err;
    case Severity::Warning:
        return spdlog::level::warn;
    case Severity::Info:
        return spdlog::level::info;
    case Severity::Debug:
        return spdlog::level::debug;
    case Severity::Trace:
        break;
    }
    return spdlog::level::trace;
}

spdlog::string_view_t toSpdlogView(std::string_view text)
{
    return {text.data(), text.size()};
}

}

SpdlogSink::SpdlogSink(std::shared_ptr<spdlog::logger> target)
    : target(std::move(target))
{
}

void SpdlogSink::write(Record const& record)
{
    spdlog::level::level_enum const level = toSpdlogLevel(record.severity);
    if (!target->should_log(level))
    {
        return;
    }

    std::string line;
    if (!record.logger.empty())
    {
        line.append("[").append(record.logger).append("] ");
    }
    line.append(record.text);
    std::lock_guard const lock(spdlogMutex);
    target->log(record.time, spdlog::source_loc{}, level, toSpdlogView(line));
}

}
