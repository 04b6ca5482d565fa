#pragma once

#include <log/Logger.h>

#include <memory>

namespace spdlog
{
class logger;
}

namespace Halden::Tavro::Log
{

/// Makes any spdlog logger a sink: syslog, the journal, a rotating file.
///
/// The message starts with the Logger's name in brackets, as spdlog's own name is that of the spdlog logger. The spdlog
/// logger's level and error handler stay in force; it must be a thread-safe one ("_mt").
///
/// One lock for all sinks of this class is held while one of them writes and while the process forks, so that a forked
/// child can log. What it does not cover may make such a child wait without end: other uses of the spdlog logger, and
/// localtime_r(3), which spdlog calls for its time, by other threads at the moment of the fork.
class HALDEN_CPPLOGGER_EXPORT SpdlogSink : public LoggerImplIfc
{
public:
    /// @param target not null
    explicit SpdlogSink(std::shared_ptr<spdlog::logger> target);

    void write(Record const& record) override;

private:
    std::shared_ptr<spdlog::logger> target;
};

}
