#include <utils/SystemTimeHandler.h>

#include "support/Resources.h"
#include "time/ClockFixture.h"

#include <gmock/gmock.h>

#include <cerrno>

namespace Halden::Tavro::Utils
{

namespace
{

using Log::Severity;
using testing::ElementsAre;
using namespace TestSupport;

using RealTimeClockExactTest = ClockFixture;

TEST_F(RealTimeClockExactTest, DeviceWhoseClockDoesNotAnswerStaysOpen)
{
    devices = {"/dev/rtc0"};
    ioctlDouble.failCall(1, -1, EINVAL);
    letLoggingChangeErrno();
    auto const line = isLine(Severity::Error, "", "Reading /dev/rtc0 failed with errno 22 (Invalid argument)");
    log.expect(line);

    EXPECT_FALSE(devRtcValid("/dev/rtc0"));

    EXPECT_THAT(log.lines(), ElementsAre(line));
    EXPECT_EQ(openDouble.count(), 1U);
    EXPECT_EQ(closeDouble.count(), 0U);
}

TEST_F(RealTimeClockExactTest, FileThatIsNoClockCostsARealDescriptor)
{
    auto const before = TestSupport::openDescriptors();
    auto const line =
        isLine(Severity::Error, "", "Reading /dev/null failed with errno 25 (Inappropriate ioctl for device)");
    log.expect(line);

    EXPECT_FALSE(devRtcValid("/dev/null"));

    EXPECT_THAT(log.lines(), ElementsAre(line));
    EXPECT_EQ(TestSupport::openDescriptors(), before + 1);
}

}

}
