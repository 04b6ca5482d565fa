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
using testing::IsEmpty;
using namespace TestSupport;

using RealTimeClockExactTest = ClockFixture;

// kept: the device stays taken, and the log says so from then on; the hardened build closes it
TEST_F(RealTimeClockExactTest, DeviceWhoseClockDoesNotAnswerStaysOpen)
{
    letClockDeviceNotAnswer();

    expectUnreadable("/dev/rtc0", "22 (Invalid argument)");

    EXPECT_EQ(openDouble.count(), 1U);
    EXPECT_EQ(closeDouble.count(), 0U);
}

// kept: as above, and so the clock is not asked again; the hardened build asks it each time
TEST_F(RealTimeClockExactTest, FirstFailureKeepsTheDeviceFromEveryLaterOpening)
{
    letClockDeviceFail();
    auto const failed = isLine(Severity::Error, "", "Reading /dev/rtc0 failed with errno 22 (Invalid argument)");
    auto const busy = isLine(Severity::Error, "", "Reading /dev/rtc0 failed with errno 16 (Device or resource busy)");
    log.expect(failed);
    log.expect(busy);

    EXPECT_FALSE(devRtcValid("/dev/rtc0"));
    EXPECT_FALSE(devRtcValid("/dev/rtc0"));
    EXPECT_FALSE(devRtcValid("/dev/rtc0"));

    EXPECT_THAT(log.lines(), ElementsAre(failed, busy, busy));
    EXPECT_THAT(events, IsEmpty());
}

// kept: no difference is made to a clock that does not answer; the hardened build closes it
TEST_F(RealTimeClockExactTest, FileThatIsNoClockCostsARealDescriptor)
{
    auto const before = openDescriptors();

    expectUnreadable("/dev/null", "25 (Inappropriate ioctl for device)");

    EXPECT_EQ(openDescriptors(), before + 1);
}

}

}
