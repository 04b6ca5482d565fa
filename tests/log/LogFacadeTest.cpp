#include "log/Log.h"

#include "support/LogCapture.h"

#include <gmock/gmock.h>

#include <array>
#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

namespace Halden::Tavro::Utils
{

namespace
{

using namespace testing;
using Log::Severity;
using TestSupport::LogCapture;
using TestSupport::LogLine;

// What a 64-bit build lets through must fit the 32-bit target too, where std::uint64_t is unsigned long long and "%lu"
// takes 32 bits. LogFacade.Rejects* in ctest show that a call with anything else does not compile.
static_assert(LogFacade::isCarried<int> && LogFacade::isCarried<unsigned> && LogFacade::isCarried<unsigned long> &&
              LogFacade::isCarried<double> && LogFacade::isCarried<char const*> && LogFacade::isCarried<char*> &&
              LogFacade::isCarried<std::array<char, 2048>>);
static_assert(!LogFacade::isCarried<long long> && !LogFacade::isCarried<unsigned long long> &&
              !LogFacade::isCarried<long> && !LogFacade::isCarried<bool> && !LogFacade::isCarried<float> &&
              !LogFacade::isCarried<std::string> && !LogFacade::isCarried<std::string_view> &&
              !LogFacade::isCarried<std::nullptr_t> && !LogFacade::isCarried<Severity>);

class Speaker : private Log::Logger
{
public:
    Speaker()
        : Logger("speaker", "", std::make_shared<Log::LoggerImpl>())
    {
    }

    void sayAll() const
    {
        TAVRO_LOG_TO(*this, Severity::Critical, "worker ends");
        TAVRO_LOG_TO(*this, Severity::Error, "errno %d (%s)", 13, "Permission denied");
        TAVRO_LOG_TO(*this, Severity::Warning, "-remove: not in the list!");
        TAVRO_LOG_TO(*this, Severity::Info, "+start()");
        TAVRO_LOG_TO(*this, Severity::Debug, "%u of %lu", 1U, 2UL);
        TAVRO_LOG_TO(*this, Severity::Trace, "%f s", 0.25);
    }

    void sayComposed(std::string const& text) const { LogFacade::write(*this, Severity::Debug, text); }
};

TEST(LogFacadeTest, MemberCallsArriveWithSeverityNameAndText)
{
    LogCapture log;
    log.expect(Field(&LogLine::logger, "speaker"));

    Speaker().sayAll();

    EXPECT_THAT(log.lines(), ElementsAre(LogLine{Severity::Critical, "speaker", "worker ends"},
                                         LogLine{Severity::Error, "speaker", "errno 13 (Permission denied)"},
                                         LogLine{Severity::Warning, "speaker", "-remove: not in the list!"},
                                         LogLine{Severity::Info, "speaker", "+start()"},
                                         LogLine{Severity::Debug, "speaker", "1 of 2"},
                                         LogLine{Severity::Trace, "speaker", "0.250000 s"}));
}

TEST(LogFacadeTest, FreeCallsArriveWithSeverityAndTextAndWithoutAName)
{
    LogCapture log;
    log.expect(Field(&LogLine::logger, ""));
    std::string const path = "/etc/hostname";
    std::string buffer = "text";

    TAVRO_LOG(Severity::Error, "Failed to read file %s", path.c_str());
    TAVRO_LOG(Severity::Debug, "%d %u %lu %f %s", -1, 2U, 3UL, 4.5, buffer.data());
    TAVRO_LOG(Severity::Trace, "executeApp()");

    EXPECT_THAT(log.lines(), ElementsAre(LogLine{Severity::Error, "", "Failed to read file /etc/hostname"},
                                         LogLine{Severity::Debug, "", "-1 2 3 4.500000 text"},
                                         LogLine{Severity::Trace, "", "executeApp()"}));
}

TEST(LogFacadeTest, BufferArrivesAsItsText)
{
    LogCapture const log;
    std::array<char, 2048> large{};
    large.fill('x');
    large.at(2000) = '\0';
    std::array<char, 4> const small{'a', 'b'};
    std::array<char, 4> const full{'a', 'b', 'c', 'd'};

    TAVRO_LOG(Severity::Debug, "%d: %s, %s", 1, large, small);
    TAVRO_LOG(Severity::Debug, "%s %s %d", full, "text", 2);

    EXPECT_THAT(log.lines(), ElementsAre(LogLine{Severity::Debug, "", "1: " + std::string(2000, 'x') + ", ab"},
                                         LogLine{Severity::Debug, "", "abc text 2"}));
    EXPECT_EQ(full.back(), 'd');
}

TEST(LogFacadeTest, FormatComposedAtRunTimeArrives)
{
    LogCapture const log;

    Speaker().sayComposed("Period set to " + std::to_string(250) + "us");
    LogFacade::write(Severity::Info, std::string("composed"));

    EXPECT_THAT(log.lines(), ElementsAre(LogLine{Severity::Debug, "speaker", "Period set to 250us"},
                                         LogLine{Severity::Info, "", "composed"}));
}

TEST(LogFacadeTest, ValuesAreEvaluatedOnce)
{
    LogCapture const log;
    int evaluations = 0;

    TAVRO_LOG(Severity::Info, "evaluation %d", ++evaluations);

    EXPECT_THAT(log.lines(), ElementsAre(LogLine{Severity::Info, "", "evaluation 1"}));
    EXPECT_EQ(evaluations, 1);
}

TEST(LogFacadeTest, DisabledSeverityWritesNothing)
{
    LogCapture const log(Severity::Info);

    Speaker().sayComposed("composed");
    TAVRO_LOG(Severity::Trace, "executeApp()");

    EXPECT_THAT(log.lines(), IsEmpty());
}

}

}
