#include <utils/SystemTimeHandler.h>

#include "support/Resources.h"
#include "time/ClockFixture.h"

#include <gmock/gmock.h>

namespace Halden::Tavro::Utils
{

namespace
{

using Log::Severity;
using testing::ElementsAre;
using namespace TestSupport;

using RealTimeClockHardenedTest = ClockFixture;

TEST_F(RealTimeClockHardenedTest, DeviceWhoseClockDoesNotAnswerIsClosed)
{
    letClockDeviceNotAnswer();

    expectUnreadable("/dev/rtc0", "22 (Invalid argument)");

    EXPECT_EQ(openDouble.count(), 1U);
    EXPECT_THAT(events, ElementsAre("close 4712"));
}

TEST_F(RealTimeClockHardenedTest, DeviceWithTheDescriptorZeroWhoseClockDoesNotAnswerIsClosed)
{
    letClockDeviceNotAnswer();
    timerUnderTest = 0;
    openDouble.replace([](char const*, int, mode_t) { return 0; });

    expectUnreadable("/dev/rtc0", "22 (Invalid argument)");

    EXPECT_THAT(events, ElementsAre("close 0"));
}

TEST_F(RealTimeClockHardenedTest, FailureLeavesTheDeviceToEveryLaterOpening)
{
    letClockDeviceFail();
    auto const failed = isLine(Severity::Error, "", "Reading /dev/rtc0 failed with errno 22 (Invalid argument)");
    log.expect(failed);

    EXPECT_FALSE(devRtcValid("/dev/rtc0"));
    EXPECT_FALSE(devRtcValid("/dev/rtc0"));
    EXPECT_FALSE(devRtcValid("/dev/rtc0"));

    EXPECT_THAT(log.lines(), ElementsAre(failed, failed, failed));
    EXPECT_THAT(events, ElementsAre("close 4712", "close 4712", "close 4712"));
}

TEST_F(RealTimeClockHardenedTest, FileThatIsNoClockCostsNoDescriptor)
{
    auto const before = openDescriptors();

    expectUnreadable("/dev/null", "25 (Inappropriate ioctl for device)");

    EXPECT_EQ(openDescriptors(), before);
}

}

}
