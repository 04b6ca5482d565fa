#include "log/LogErrno.h"

#include "support/LogCapture.h"

#include <gmock/gmock.h>

#include <cerrno>
#include <memory>
#include <string>

namespace Halden::Tavro::Utils
{

namespace
{

using Log::Severity;
using testing::ElementsAre;
using TestSupport::isLine;
using TestSupport::LogCapture;
using TestSupport::LogLine;

class Speaker : private Log::Logger
{
public:
    Speaker()
        : Logger("speaker", "", std::make_shared<Log::LoggerImpl>())
    {
    }

    void say(char const* what) const
    {
        errno = EACCES;
        TAVRO_LOG_ERRNO_TO(*this, "Failed to %s, errno=%d (%s)", what);
    }
};

class LogErrnoTest : public testing::Test
{
protected:
    LogErrnoTest()
    {
        log.expect(testing::Field(&LogLine::severity, Severity::Error));
        log.onLine([](auto const& /*line*/) { errno = EDOM; }); // as logging may
    }

    LogCapture log;
};

TEST_F(LogErrnoTest, NumberAndTextOfErrnoComeAfterTheOtherValues)
{
    Speaker().say("bind");
    errno = ENOMEM;
    TAVRO_LOG_ERRNO("Reading %s failed %u times with errno %d (%s)", "/dev/rtc", 2U);

    EXPECT_THAT(log.lines(),
                ElementsAre(isLine(Severity::Error, "speaker", "Failed to bind, errno=13 (Permission denied)"),
                            isLine(Severity::Error, "",
                                   "Reading /dev/rtc failed 2 times with errno 12 "
                                   "(Cannot allocate memory)")));
}

TEST_F(LogErrnoTest, FormatMayHaveNoOtherValues)
{
    errno = EACCES;
    TAVRO_LOG_ERRNO("poll failed with %d(%s)");

    EXPECT_THAT(log.lines(), ElementsAre(isLine(Severity::Error, "", "poll failed with 13(Permission denied)")));
}

TEST_F(LogErrnoTest, ErrnoIsReadBeforeTheValuesAreAndIsAfterwardsAsItWas)
{
    errno = EACCES;
    TAVRO_LOG_ERRNO("%d: %d (%s)", errno = ENOMEM);
    int const afterFreeCall = errno;
    Speaker().say("bind");
    int const afterMemberCall = errno;

    EXPECT_EQ(log.lines().front().text, "12: 13 (Permission denied)");
    EXPECT_EQ(afterFreeCall, EACCES);
    EXPECT_EQ(afterMemberCall, EACCES);
}

}

}
