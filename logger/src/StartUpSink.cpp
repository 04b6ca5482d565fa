#include "StartUpSink.h"

#include <log/SpdlogSink.h>

#include <boost/date_time/gregorian/gregorian_types.hpp>
#include <spdlog/logger.h>
#include <spdlog/pattern_formatter.h>
#include <spdlog/sinks/stdout_sinks.h>

#include <array>
#include <chrono>
#include <cstdio>
#include <ratio>
#include <utility>

namespace Halden::Tavro::Log
{

namespace
{

/// Date and time in UTC. gmtime_r(3) and localtime_r(3) take a lock of the C library, which a forked child could find
/// held by a thread that it does not have; the calendar used here is arithmetic alone.
class UtcTime : public spdlog::custom_flag_formatter
{
public:
    void format(spdlog::details::log_msg const& message, std::tm const& /*unused*/, spdlog::memory_buf_t& line) override
    {
        using Days = std::chrono::duration<int, std::ratio<86'400>>;
        auto const time = std::chrono::floor<std::chrono::milliseconds>(message.time.time_since_epoch());
        auto const days = std::chrono::floor<Days>(time);
        auto const date = boost::gregorian::date(1970, 1, 1) + boost::gregorian::days(days.count());
        auto const milliseconds = static_cast<int>((time - days).count());
        std::array<char, 64> text{};
        static_cast<void>(std::snprintf(text.data(), text.size(), "%04d-%02d-%02d %02d:%02d:%02d.%03d",
                                        static_cast<int>(date.year()), static_cast<int>(date.month()),
                                        static_cast<int>(date.day()), milliseconds / 3'600'000,
                                        milliseconds / 60'000 % 60, milliseconds / 1'000 % 60, milliseconds % 1'000));
        std::string_view const written = text.data();
        line.append(written.begin(), written.end());
    }

    std::unique_ptr<spdlog::custom_flag_formatter> clone() const override { return std::make_unique<UtcTime>(); }
};

}

std::shared_ptr<LoggerImplIfc> makeStartUpSink()
{
    auto formatter = std::make_unique<spdlog::pattern_formatter>();
    formatter->add_flag<UtcTime>('*').set_pattern("%* %l %t %v");
    auto const target =
        std::make_shared<spdlog::logger>("haldencpplogger", std::make_shared<spdlog::sinks::stderr_sink_mt>());
    target->set_formatter(std::move(formatter));
    target->set_level(spdlog::level::trace);
    return std::make_shared<SpdlogSink>(target);
}

}
