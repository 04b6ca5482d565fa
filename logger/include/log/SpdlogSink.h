#pragma once

#include <log/Logger.h>

#include <memory>

namespace spdlog
{
class logger;
}

namespace Halden::Tavro::Log
{

/// Makes any spdlog logger a sink: for syslog, the journal, a rotating file.
///
///     auto const target = spdlog::rotating_logger_mt("service", "/var/log/service.log", 1'000'000, 3);
///     LoggerProxy::instance().setSink(std::make_shared<SpdlogSink>(target));
///
/// The message starts with the Logger's name in brackets, as spdlog's own name is that of the spdlog logger. The spdlog
/// logger's level and error handler stay in force.
///
/// Threads: any; the spdlog logger must be a thread-safe one ("_mt"). One lock for all sinks of this class is held
/// while one of them writes and while the process forks, so that a forked child can log.
///
/// Limits: that lock does not cover other uses of the spdlog logger, nor localtime_r(3), which spdlog calls for its
/// time. A child that is forked while another thread is in one of these may wait without end when it logs.
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
