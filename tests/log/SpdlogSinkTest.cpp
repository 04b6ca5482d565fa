#include <log/SpdlogSink.h>

#include <gmock/gmock.h>
#include <spdlog/logger.h>
#include <spdlog/sinks/ostream_sink.h>

#include <chrono>
#include <memory>
#include <sstream>
#include <string>
#include <string_view>

namespace Halden::Tavro::Log
{

namespace
{

using namespace testing;

class SpdlogSinkTest : public Test
{
protected:
    SpdlogSinkTest()
    {
        target->set_pattern("%l|%v");
        target->set_level(spdlog::level::trace);
    }

    void write(Severity severity, std::string_view logger, std::string_view text)
    {
        sut.write({std::chrono::system_clock::now(), severity, logger, text});
    }

    std::ostringstream stream;
    std::shared_ptr<spdlog::logger> const target =
        std::make_shared<spdlog::logger>("own name", std::make_shared<spdlog::sinks::ostream_sink_mt>(stream));
    SpdlogSink sut{target};
};

TEST_F(SpdlogSinkTest, EachSeverityHasItsLevel)
{
    for (int severity = 0; severity <= static_cast<int>(Severity::Trace); ++severity)
    {
        write(static_cast<Severity>(severity), "", "text");
    }

    EXPECT_EQ(stream.str(), "critical|text\nerror|text\nwarning|text\ninfo|text\ndebug|text\ntrace|text\n");
}

TEST_F(SpdlogSinkTest, LoggersNameStandsInBracketsBeforeTheText)
{
    write(Severity::Info, "Halden::Tavro::Utils::PeriodicCaller 'led'", "+start()");

    EXPECT_EQ(stream.str(), "info|[Halden::Tavro::Utils::PeriodicCaller 'led'] +start()\n");
}

TEST_F(SpdlogSinkTest, TextIsNotTakenForAFormat)
{
    write(Severity::Info, "{0}", "100% {} {1:d} {");

    EXPECT_EQ(stream.str(), "info|[{0}] 100% {} {1:d} {\n");
}

TEST_F(SpdlogSinkTest, ViewsNeedNotEndInANul)
{
    write(Severity::Info, std::string_view("name and more", 4), std::string_view("text and more", 4));

    EXPECT_EQ(stream.str(), "info|[name] text\n");
}

TEST_F(SpdlogSinkTest, LevelOfTheSpdlogLoggerStaysInForce)
{
    target->set_level(spdlog::level::warn);

    write(Severity::Info, "", "too verbose");
    write(Severity::Warning, "", "wanted");

    EXPECT_EQ(stream.str(), "warning|wanted\n");
}

TEST_F(SpdlogSinkTest, TimeIsThatOfTheRecord)
{
    target->set_pattern("%E.%e|%v");

    sut.write(
        {std::chrono::system_clock::time_point(std::chrono::milliseconds(1234567890123)), Severity::Info, "", "text"});

    EXPECT_EQ(stream.str(), "1234567890.123|text\n");
}

}

}
