// How a service is tested with Halden::cpputils_testing: a minute of it takes no time, and nothing is left to chance.

#include "SensorService.h"

#include <utils/testing/BarrierGuard.h>
#include <utils/testing/FirmwareVersionStub.h>
#include <utils/testing/LogCaptureGmock.h>
#include <utils/testing/ManualTimeManager.h>
#include <utils/testing/SystemTimeHandlerStub.h>

#include <gmock/gmock.h>

#include <chrono>
#include <future>

namespace
{

using namespace Halden::Tavro::Utils::Testing;
using namespace std::chrono_literals;
using namespace testing;
using Halden::Tavro::Log::Severity;

class SensorServiceTest : public Test
{
protected:
    SensorServiceTest()
    {
        firmware.setVersion("1.2.3");
        systemTime.setAbsoluteTime(true);
    }

    std::shared_ptr<ManualTimeManager> const manager = std::make_shared<ManualTimeManager>();
    StrictLogCapture log;
    SystemTimeHandlerStub systemTime;
    FirmwareVersionStub firmware;
    std::optional<double> reading{21.5};
    SensorService sut{*manager, systemTime, firmware, [this] { return reading; }};
};

TEST_F(SensorServiceTest, ReadsTenTimesASecondFromTheStart)
{
    manager->advance(1min);

    EXPECT_EQ(sut.report(), "firmware 1.2.3, absolute time, 601 readings, mean 21.50");
}

TEST_F(SensorServiceTest, SaysWhenItHasNoTimeAndNoReadings)
{
    systemTime.setAbsoluteTime(false);

    EXPECT_EQ(sut.report(), "firmware 1.2.3, no time, 0 readings");
}

TEST_F(SensorServiceTest, ComplainsOnceInTenSecondsOfSilence)
{
    auto const complaint = isLine(Severity::Warning, "SensorService", StartsWith("No reading for 10 s"));
    log.expect(complaint);
    manager->advance(9s);

    reading.reset();
    manager->advance(30s);

    EXPECT_EQ(log.count(complaint), 2);
}

TEST_F(SensorServiceTest, SlowSensorDelaysTheReadings)
{
    SensorService const slow(*manager, systemTime, firmware,
                             [this]
                             {
                                 manager->spend(250ms);
                                 return 20.0;
                             });

    manager->advance(1s);

    EXPECT_EQ(slow.report(), "firmware 1.2.3, absolute time, 5 readings, mean 20.00");
}

TEST_F(SensorServiceTest, ReadingCountsOnlyWhenItHasArrived)
{
    std::future<void> time;
    BarrierGuard held(sut.readingArrived);
    time = std::async(std::launch::async, [this] { manager->advance(0ms); });

    ASSERT_TRUE(held.waitTrapped());
    EXPECT_THAT(sut.report(), HasSubstr(" 0 readings"));
    held.release();
    time.wait();

    EXPECT_THAT(sut.report(), HasSubstr(" 1 readings"));
}

}
