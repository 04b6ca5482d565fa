#include <utils/PcmItem.h>

#include "scheduling/ItemTest.h"
#include "support/LogCapture.h"

#include <gmock/gmock.h>

#include <atomic>
#include <stdexcept>
#include <thread>

namespace Halden::Tavro::Utils
{

namespace
{

using namespace std::chrono_literals;
using namespace testing;
using namespace TestSupport;

using Log::Severity;
using std::chrono::steady_clock;

TEST(PcmItemHardenedTest, DueTimeMayBeReadBesideExecutions)
{
    PcmItem sut(doNothing, 1ms);
    auto const begin = steady_clock::now();
    std::atomic<bool> done{false};

    std::thread execution(
        [&]
        {
            for (int i = 0; i < 10'000; ++i)
            {
                sut.execute();
            }
            done = true;
        });
    auto last = sut.nextDueTime();
    bool isAscending = true;
    while (!done)
    {
        auto const due = sut.nextDueTime();
        isAscending = isAscending && due >= last;
        last = due;
    }
    execution.join();

    EXPECT_TRUE(isAscending);
    EXPECT_GE(sut.nextDueTime(), begin + 1ms);
}

TEST(PcmItemHardenedTest, OneOfManyExceptionsAtOnceIsTheFirst)
{
    for (int round = 0; round < 200; ++round)
    {
        LogCapture log;
        auto const error = isLine(Severity::Error, itemLogger, firstUnknownText);
        log.expect(error);
        PcmItem sut([] { throw 42; }, 1ms);

        std::thread other([&sut] { sut.execute(); });
        sut.execute();
        other.join();

        ASSERT_EQ(log.count(error), 1U);
        ASSERT_EQ(log.lines().size(), 2U);
    }
}

TEST(PcmItemHardenedTest, ExceptionBesideTheLineOfTheFirstIsATrace)
{
    EXPECT_THAT(severitiesOfTwoAtOnce([] { throw std::runtime_error("x"); }),
                ElementsAre(Severity::Error, Severity::Trace));
    EXPECT_THAT(severitiesOfTwoAtOnce([] { throw 42; }), ElementsAre(Severity::Error, Severity::Trace));
}

}

}
