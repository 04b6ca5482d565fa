#include <utils/PcmItem.h>

#include "scheduling/CountsCopies.h"
#include "scheduling/ItemTest.h"
#include "support/LogCapture.h"
#include "support/SteadyClockDouble.h"
#include "support/VirtualSlot.h"

#include <gmock/gmock.h>

#include <functional>
#include <memory>
#include <type_traits>
#include <utility>

namespace Halden::Tavro::Utils
{

namespace
{

using namespace std::chrono_literals;
using namespace testing;
using namespace TestSupport;

using Log::Severity;
using std::chrono::steady_clock;

TEST(PcmItemTest, InterfaceOperationsHaveTheirSlots)
{
    EXPECT_EQ(virtualSlot(&PcmItemIfc::execute), 0);
    EXPECT_EQ(virtualSlot(&PcmItemIfc::isDueWithin), 1);
    EXPECT_EQ(virtualSlot(&PcmItemIfc::nextDueTime), 2);
    EXPECT_EQ(virtualSlot(&PcmItemIfc::period), 3);
    EXPECT_EQ(virtualSlot(&PcmItemIfc::forbidFurtherExecutions), 4);
    EXPECT_EQ(virtualSlot(&PcmItemIfc::waitEndOfExecutionIfAny), 5);
}

// kept: callers know the slots; shared pointers know the concrete class
TEST(PcmItemTest, InterfaceIsPureWithoutDataAndWithoutVirtualDestructor)
{
    EXPECT_TRUE(std::is_abstract_v<PcmItemIfc>);
    EXPECT_EQ(sizeof(PcmItemIfc), sizeof(void*));
    EXPECT_FALSE(std::has_virtual_destructor_v<PcmItemIfc>);
}

TEST(PcmItemTest, LoggerIsABaseThatUsersDoNotSee)
{
    EXPECT_TRUE((std::is_convertible_v<PcmItem*, PcmItemIfc*>));
    EXPECT_TRUE((std::is_base_of_v<Log::Logger, PcmItem>));
    EXPECT_FALSE((std::is_convertible_v<PcmItem*, Log::Logger*>));
}

TEST(PcmItemTest, CannotBeCopiedOrMoved)
{
    EXPECT_FALSE(std::is_copy_constructible_v<PcmItem>);
    EXPECT_FALSE(std::is_move_constructible_v<PcmItem>);
    EXPECT_FALSE(std::is_copy_assignable_v<PcmItem>);
    EXPECT_FALSE(std::is_move_assignable_v<PcmItem>);
}

TEST(PcmItemTest, PeriodIsKeptUnchecked)
{
    EXPECT_EQ(PcmItem(doNothing, 100ms).period(), 100ms);
    EXPECT_EQ(PcmItem(doNothing, 0ms).period(), 0ms);
    EXPECT_EQ(PcmItem(doNothing, -5ms).period(), -5ms);
    EXPECT_EQ(PcmItem(doNothing, 8'000'000'000'000ms).period(), 8'000'000'000'000ms);
}

TEST(PcmItemTest, FunctionIsMovedIn)
{
    int copies = 0;
    std::function<void()> function = CountsCopies(copies);
    copies = 0;

    PcmItem const sut(std::move(function), 1ms);

    EXPECT_EQ(copies, 0);
}

TEST(PcmItemTest, SharedPointerToTheInterfaceDestroysTheConcreteItem)
{
    auto const owner = std::make_shared<int>(0);
    std::shared_ptr<PcmItemIfc> sut = std::make_shared<PcmItem>([owner] {}, 1ms);

    sut.reset();

    EXPECT_EQ(owner.use_count(), 1);
}

// kept: the interface has no virtual destructor
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"

/// Changes the clock while it is asked for its due time. Names its own logger, as only a virtual base lets it.
class ClockMovingItem final : public PcmItem
{
public:
    ClockMovingItem(SteadyClockDouble& clock, std::function<void()> function)
        : Log::Logger("service item", "", std::make_shared<Log::LoggerImpl>())
        , PcmItem(std::move(function), 1h)
        , clock(clock)
    {
    }

    steady_clock::time_point nextDueTime() const override
    {
        clock.set(200ms);
        return at(100ms);
    }

private:
    SteadyClockDouble& clock;
};

#pragma GCC diagnostic pop

TEST(PcmItemTest, DueTestAsksTheVirtualDueTimeBeforeTheClock)
{
    SteadyClockDouble clock(0ms);
    ClockMovingItem const sut(clock, doNothing);

    EXPECT_TRUE(sut.isDueWithin(0ms));
}

TEST(PcmItemTest, DerivedItemNamesTheVirtualLoggerBase)
{
    LogCapture log;
    SteadyClockDouble clock(0ms);
    ClockMovingItem sut(clock, doNothing);
    log.expect(isLine(Severity::Warning, "service item", forbiddenText));
    sut.forbidFurtherExecutions();

    sut.execute();

    EXPECT_THAT(log.lines(), ElementsAre(isLine(Severity::Warning, "service item", forbiddenText)));
}

}

}
