#include "LogSink.h"

#include "../support/Files.h"

#include <log/SpdlogSink.h>

#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/sinks/syslog_sink.h>
#include <spdlog/sinks/systemd_sink.h>
#include <spdlog/spdlog.h>

#include <syslog.h>

namespace DeviceService
{

using Halden::Tavro::Log::SpdlogSink;

std::shared_ptr<Halden::Tavro::Log::LoggerImplIfc> makeLogSink(std::string const& where)
{
    if (where == "stderr")
    {
        return nullptr;
    }
    std::shared_ptr<spdlog::logger> target;
    if (where == "syslog")
    {
        target = spdlog::syslog_logger_mt("syslog", "device_service", LOG_PID, LOG_DAEMON);
    }
    else if (where == "journal")
    {
        target = spdlog::systemd_logger_mt("journal");
    }
    else
    {
        requireWritable(where);
        target = spdlog::basic_logger_mt("file", where);
    }
    target->set_level(spdlog::level::trace); // the threshold is the library's
    target->flush_on(spdlog::level::trace);
    return std::make_shared<SpdlogSink>(target);
}

}
