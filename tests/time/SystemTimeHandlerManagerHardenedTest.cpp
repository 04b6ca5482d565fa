#include "scheduling/Strategies.h"
#include "support/Resources.h"
#include "time/SystemTimeHandlerFixture.h"

#include <utils/PeriodicCallerManager.h>

#include <gmock/gmock.h>

#include <atomic>
#include <memory>
#include <string>

namespace Halden::Tavro::Utils
{

namespace
{

using namespace TestSupport;

/// Handlers that are made and destroyed while their managers run, and with them their first polls.
class SystemTimeHandlerManagerHardenedTest : public ClockFixture, public testing::WithParamInterface<Strategy>
{
protected:
    SystemTimeHandlerManagerHardenedTest()
    {
        useRealTimers();
        log.expect(isLine(Log::Severity::Warning, "Halden::Tavro::Utils::PcmItem",
                          std::string("Execution of PCM item is forbidden")));
        adjtimexDouble.replace(
            [this](timex* query)
            {
                query->status = queries++ % 3 == 2 ? 0 : STA_UNSYNC; // so some polls end by trust
                return TIME_ERROR;
            });
    }

    std::atomic<int> queries{0};
};

TEST_P(SystemTimeHandlerManagerHardenedTest, HandlersOnOneManagerLeaveNothingBehind)
{
    auto const run = [this](int count)
    {
        auto manager = std::make_shared<PeriodicCallerManager>(GetParam(), "common");
        for (int i = 0; i < count; ++i)
        {
            SystemTimeHandler handler(std::make_shared<ImpatientManager>(manager));
            handler.initialize();
        }
        manager.reset();
        log.clear();
    };
    run(10);
    auto const before = holdings();

    run(1000);

    EXPECT_TRUE(isBackTo(before));
}

TEST_P(SystemTimeHandlerManagerHardenedTest, HandlerMayBeTheOnlyOwnerOfItsManager)
{
    auto const run = [this](int count)
    {
        for (int i = 0; i < count; ++i)
        {
            SystemTimeHandler handler(
                std::make_shared<ImpatientManager>(std::make_shared<PeriodicCallerManager>(GetParam(), "own")));
            handler.initialize();
        }
        log.clear();
    };
    run(2);
    auto const before = holdings();

    run(100);

    EXPECT_TRUE(isBackTo(before));
}

INSTANTIATE_TEST_SUITE_P(Both, SystemTimeHandlerManagerHardenedTest, bothStrategies(), nameOfStrategy);

}

}
