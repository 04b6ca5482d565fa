#include <utils/PcmItem.h>

#include "scheduling/CountsCopies.h"
#include "support/LogCapture.h"
#include "support/VirtualSlot.h"

#include <gmock/gmock.h>

#include <time.h>

#include <atomic>
#include <future>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

namespace Halden::Tavro::Utils
{

namespace
{

using namespace std::chrono_literals;
using namespace TestSupport;

using Log::Severity;
using std::chrono::milliseconds;
using std::chrono::nanoseconds;
using std::chrono::steady_clock;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr auto limit = 10s;
/// How long something is watched that must not happen.
constexpr auto watchTime = 100ms;

std::string const loggerName = "Halden::Tavro::Utils::PcmItem";
std::string const forbiddenText = "Execution of PCM item is forbidden";
std::string const firstUnknownText =
    "PcmItem execution threw unknown exception. Further exceptions will be logged with trace level";
std::string const laterUnknownText = "PcmItem execution threw unknown exception.";

std::string firstText(std::string const& what)
{
    return "PcmItem execution threw exception. Exception: " + what +
           ".\nFurther exceptions will be logged with trace level";
}

std::string laterText(std::string const& what)
{
    return "PcmItem execution threw exception. Exception: " + what + ".\n";
}

std::atomic<bool> clockStopped{false};
std::atomic<nanoseconds::rep> stoppedAt{0};

/// Stops the steady clock of this program at a time since its epoch.
class StoppedClock
{
public:
    explicit StoppedClock(nanoseconds time)
    {
        set(time);
        clockStopped = true;
    }
    ~StoppedClock() { clockStopped = false; }

    StoppedClock(StoppedClock const&) = delete;
    StoppedClock& operator=(StoppedClock const&) = delete;

    void set(nanoseconds time) { stoppedAt = time.count(); }
};

steady_clock::time_point at(nanoseconds sinceEpoch)
{
    return steady_clock::time_point(sinceEpoch);
}

void doNothing() {}

/// Calls waitEndOfExecutionIfAny() on a thread of its own.
class Waiter
{
public:
    explicit Waiter(PcmItem& item)
        : returned(std::async(std::launch::async, [&item] { item.waitEndOfExecutionIfAny(); }))
    {
    }

    bool returnsWithin(milliseconds time) const { return returned.wait_for(time) == std::future_status::ready; }

private:
    std::future<void> returned;
};

/// A function that tells when it has been entered and stays until it is released.
class HeldFunction
{
public:
    void operator()()
    {
        entries.fetch_add(1);
        entered.set_value();
        released.get_future().wait_for(limit);
    }

    bool waitEntered() { return entered.get_future().wait_for(limit) == std::future_status::ready; }
    void release() { released.set_value(); }

    std::atomic<int> entries{0};

private:
    std::promise<void> entered;
    std::promise<void> released;
};

TEST(PcmItemTest, InterfaceOperationsHaveTheirSlots)
{
    EXPECT_EQ(virtualSlot(&PcmItemIfc::execute), 0);
    EXPECT_EQ(virtualSlot(&PcmItemIfc::isDueWithin), 1);
    EXPECT_EQ(virtualSlot(&PcmItemIfc::nextDueTime), 2);
    EXPECT_EQ(virtualSlot(&PcmItemIfc::period), 3);
    EXPECT_EQ(virtualSlot(&PcmItemIfc::forbidFurtherExecutions), 4);
    EXPECT_EQ(virtualSlot(&PcmItemIfc::waitEndOfExecutionIfAny), 5);
}

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

TEST(PcmItemTest, FreshItemIsDueOnePeriodAfterTheEpoch)
{
    PcmItem const sut(doNothing, 100ms);

    EXPECT_EQ(sut.nextDueTime(), at(100ms));
}

TEST(PcmItemTest, FreshItemOnAClockThatHasRunForHoursIsDueAtOnce)
{
    StoppedClock const clock(3h);
    PcmItem const sut(doNothing, 100ms);

    EXPECT_TRUE(sut.isDueWithin(0ms));
}

TEST(PcmItemTest, FreshItemWaitsWhileTheClockReadsLessThanOnePeriod)
{
    StoppedClock clock(99ms);
    PcmItem const sut(doNothing, 100ms);

    EXPECT_FALSE(sut.isDueWithin(0ms));
    clock.set(100ms + 1ns);
    EXPECT_TRUE(sut.isDueWithin(0ms));
}

TEST(PcmItemTest, ItemWhoseDueTimeEqualsNowPlusTheLookAheadIsNotDue)
{
    StoppedClock clock(0ns);
    PcmItem const sut(doNothing, 100ms);

    clock.set(70ms);
    EXPECT_FALSE(sut.isDueWithin(30ms));
    EXPECT_TRUE(sut.isDueWithin(31ms));
    clock.set(70ms + 1ns);
    EXPECT_TRUE(sut.isDueWithin(30ms));
    clock.set(70ms - 1ns);
    EXPECT_FALSE(sut.isDueWithin(30ms));
}

TEST(PcmItemTest, LookAheadMayBeNegative)
{
    StoppedClock clock(150ms);
    PcmItem const sut(doNothing, 100ms);

    EXPECT_FALSE(sut.isDueWithin(-50ms));
    EXPECT_TRUE(sut.isDueWithin(-49ms));
}

// The interface has no virtual destructor on purpose.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"

/// Changes the clock while it is asked for its due time. Names its own logger, as only a virtual base lets it.
class ClockMovingItem final : public PcmItem
{
public:
    ClockMovingItem(StoppedClock& clock, std::function<void()> function)
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
    StoppedClock& clock;
};

#pragma GCC diagnostic pop

TEST(PcmItemTest, DueTestAsksTheVirtualDueTimeBeforeTheClock)
{
    StoppedClock clock(0ms);
    ClockMovingItem const sut(clock, doNothing);

    EXPECT_TRUE(sut.isDueWithin(0ms));
}

TEST(PcmItemTest, DerivedItemNamesTheVirtualLoggerBase)
{
    LogCapture log;
    StoppedClock clock(0ms);
    ClockMovingItem sut(clock, doNothing);
    log.expect(isLine(Severity::Warning, "service item", forbiddenText));
    sut.forbidFurtherExecutions();

    sut.execute();

    EXPECT_THAT(log.lines(), ElementsAre(isLine(Severity::Warning, "service item", forbiddenText)));
}

TEST(PcmItemTest, DueTimeCountsFromTheStartOfTheLastExecution)
{
    StoppedClock clock(5s);
    PcmItem sut([&clock] { clock.set(7s); }, 100ms);

    sut.execute();

    EXPECT_EQ(sut.nextDueTime(), at(5s + 100ms));
}

TEST(PcmItemTest, LateStartMovesTheScheduleAndMissedPeriodsAreNotMadeUp)
{
    StoppedClock clock(1s);
    PcmItem sut(doNothing, 100ms);
    sut.execute();

    clock.set(1s + 357ms + 1ns);
    sut.execute();

    EXPECT_EQ(sut.nextDueTime(), at(1s + 457ms + 1ns));
    EXPECT_FALSE(sut.isDueWithin(0ms));
}

TEST(PcmItemTest, FunctionSeesTheNewDueTimeAlready)
{
    StoppedClock const clock(5s);
    std::optional<steady_clock::time_point> seen;
    std::unique_ptr<PcmItem> sut;
    sut = std::make_unique<PcmItem>([&] { seen = sut->nextDueTime(); }, 100ms);

    sut->execute();

    EXPECT_EQ(seen, at(5s + 100ms));
}

TEST(PcmItemTest, ExecutionThatThrowsMovesTheDueTime)
{
    LogCapture log;
    log.expect(isLine(Severity::Error, loggerName, firstUnknownText));
    StoppedClock const clock(5s);
    PcmItem sut([] { throw 1; }, 100ms);

    sut.execute();

    EXPECT_EQ(sut.nextDueTime(), at(5s + 100ms));
}

TEST(PcmItemTest, EachExecutionCallsTheFunctionOnceAndLogsNothing)
{
    LogCapture const log;
    int calls = 0;
    PcmItem sut([&calls] { ++calls; }, 1ms);

    sut.execute();
    EXPECT_EQ(calls, 1);
    sut.execute();
    EXPECT_EQ(calls, 2);

    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST(PcmItemTest, ForbiddenItemDoesNotCallTheFunctionAndWarnsEachTime)
{
    LogCapture log;
    auto const warning = isLine(Severity::Warning, loggerName, forbiddenText);
    log.expect(warning);
    int calls = 0;
    PcmItem sut([&calls] { ++calls; }, 1ms);
    sut.forbidFurtherExecutions();
    sut.forbidFurtherExecutions();

    sut.execute();
    EXPECT_THAT(log.lines(), ElementsAre(warning));
    sut.execute();

    EXPECT_THAT(log.lines(), ElementsAre(warning, warning));
    EXPECT_EQ(calls, 0);
}

TEST(PcmItemTest, ForbiddingAloneLogsNothingAndKeepsTheDueTime)
{
    LogCapture const log;
    PcmItem sut(doNothing, 100ms);

    sut.forbidFurtherExecutions();

    EXPECT_EQ(sut.nextDueTime(), at(100ms));
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST(PcmItemTest, RefusedExecutionMovesTheDueTimeBeforeItWarns)
{
    StoppedClock const clock(5s);
    PcmItem sut(doNothing, 100ms);
    std::optional<steady_clock::time_point> seen;
    LogCapture log;
    log.expect(isLine(Severity::Warning, loggerName, forbiddenText));
    log.onLine([&](LogLine const&) { seen = sut.nextDueTime(); });
    sut.forbidFurtherExecutions();

    sut.execute();

    EXPECT_EQ(seen, at(5s + 100ms));
    EXPECT_EQ(sut.nextDueTime(), at(5s + 100ms));
}

TEST(PcmItemTest, FirstExceptionIsAnErrorAndLaterOnesAreTraces)
{
    LogCapture log;
    auto const error = isLine(Severity::Error, loggerName, firstText("x"));
    auto const trace = isLine(Severity::Trace, loggerName, laterText("x"));
    log.expect(error);
    PcmItem sut([] { throw std::runtime_error("x"); }, 1ms);

    sut.execute();
    sut.execute();
    sut.execute();

    EXPECT_THAT(log.lines(), ElementsAre(error, trace, trace));
}

TEST(PcmItemTest, FirstUnknownExceptionIsAnErrorAndLaterOnesAreTraces)
{
    LogCapture log;
    auto const error = isLine(Severity::Error, loggerName, firstUnknownText);
    auto const trace = isLine(Severity::Trace, loggerName, laterUnknownText);
    log.expect(error);
    PcmItem sut([] { throw 42; }, 1ms);

    sut.execute();
    sut.execute();
    sut.execute();

    EXPECT_THAT(log.lines(), ElementsAre(error, trace, trace));
}

TEST(PcmItemTest, UnknownExceptionAfterAnExceptionIsATrace)
{
    LogCapture log;
    auto const error = isLine(Severity::Error, loggerName, firstText("x"));
    log.expect(error);
    bool first = true;
    PcmItem sut(
        [&first]
        {
            if (std::exchange(first, false))
            {
                throw std::runtime_error("x");
            }
            throw 42;
        },
        1ms);

    sut.execute();
    sut.execute();

    EXPECT_THAT(log.lines(), ElementsAre(error, isLine(Severity::Trace, loggerName, laterUnknownText)));
}

TEST(PcmItemTest, ExceptionAfterAnUnknownExceptionIsATrace)
{
    LogCapture log;
    auto const error = isLine(Severity::Error, loggerName, firstUnknownText);
    log.expect(error);
    bool first = true;
    PcmItem sut(
        [&first]
        {
            if (std::exchange(first, false))
            {
                throw 42;
            }
            throw std::runtime_error("x");
        },
        1ms);

    sut.execute();
    sut.execute();

    EXPECT_THAT(log.lines(), ElementsAre(error, isLine(Severity::Trace, loggerName, laterText("x"))));
}

TEST(PcmItemTest, SuccessBetweenTwoExceptionsDoesNotMakeTheSecondAnError)
{
    LogCapture log;
    auto const error = isLine(Severity::Error, loggerName, firstText("x"));
    log.expect(error);
    int calls = 0;
    PcmItem sut(
        [&calls]
        {
            if (++calls != 2)
            {
                throw std::runtime_error("x");
            }
        },
        1ms);

    sut.execute();
    sut.execute();
    sut.execute();

    EXPECT_EQ(calls, 3);
    EXPECT_THAT(log.lines(), ElementsAre(error, isLine(Severity::Trace, loggerName, laterText("x"))));
}

TEST(PcmItemTest, EachItemHasAFirstExceptionOfItsOwn)
{
    LogCapture log;
    auto const error = isLine(Severity::Error, loggerName, firstText("x"));
    log.expect(error);
    auto const throwing = [] { throw std::logic_error("x"); };
    PcmItem first(throwing, 1ms);
    PcmItem second(throwing, 1ms);

    first.execute();
    second.execute();

    EXPECT_THAT(log.lines(), ElementsAre(error, error));
}

TEST(PcmItemTest, PercentSignsOfAnExceptionAreNotInterpreted)
{
    LogCapture log;
    auto const error = isLine(Severity::Error, loggerName, firstText("100% of %s and %n"));
    log.expect(error);
    PcmItem sut([] { throw std::runtime_error("100% of %s and %n"); }, 1ms);

    sut.execute();

    EXPECT_THAT(log.lines(), ElementsAre(error));
}

TEST(PcmItemTest, EmptyFunctionEndsInALoggedBadFunctionCall)
{
    LogCapture log;
    std::string const what = std::bad_function_call().what();
    auto const error = isLine(Severity::Error, loggerName, firstText(what));
    log.expect(error);
    PcmItem sut({}, 1ms);

    sut.execute();
    sut.execute();

    EXPECT_THAT(log.lines(), ElementsAre(error, isLine(Severity::Trace, loggerName, laterText(what))));
}

TEST(PcmItemTest, TextsHaveTheirLengths)
{
    std::size_t const specifier = std::string("%s").size();
    std::vector<std::size_t> lengths;
    LogCapture log;
    log.expect(testing::_);
    log.onLine([&lengths](LogLine const& line) { lengths.push_back(line.text.size()); });
    PcmItem known([] { throw std::runtime_error(""); }, 1ms);
    PcmItem unknown([] { throw 42; }, 1ms);

    known.execute();
    known.execute();
    unknown.execute();
    unknown.execute();

    EXPECT_THAT(lengths, ElementsAre(100 - specifier, 50 - specifier, 93, 42));
}

/// Executes an item that throws, and tells whether its lock was free while each line was logged.
std::vector<bool> lockIsFreeInLines(std::function<void()> const& throwing)
{
    LogCapture log;
    log.expect(testing::_);
    PcmItem sut(throwing, 1ms);
    std::vector<std::unique_ptr<Waiter>> waiters; // outlive the callback, so that a held lock fails and does not hang
    std::vector<bool> isFree;
    log.onLine(
        [&](LogLine const&)
        {
            waiters.push_back(std::make_unique<Waiter>(sut));
            isFree.push_back(waiters.back()->returnsWithin(limit));
        });

    sut.execute();
    sut.execute();
    waiters.clear();
    return isFree;
}

TEST(PcmItemTest, ExceptionsAreLoggedOutsideTheLock)
{
    EXPECT_THAT(lockIsFreeInLines([] { throw std::runtime_error("x"); }), ElementsAre(true, true));
}

TEST(PcmItemTest, UnknownExceptionsAreLoggedOutsideTheLock)
{
    EXPECT_THAT(lockIsFreeInLines([] { throw 42; }), ElementsAre(true, true));
}

TEST(PcmItemTest, RefusalIsLoggedUnderTheLock)
{
    LogCapture log;
    log.expect(isLine(Severity::Warning, loggerName, forbiddenText));
    PcmItem sut(doNothing, 1ms);
    std::unique_ptr<Waiter> waiter;
    std::optional<bool> isFree;
    log.onLine(
        [&](LogLine const&)
        {
            waiter = std::make_unique<Waiter>(sut);
            isFree = waiter->returnsWithin(watchTime);
        });
    sut.forbidFurtherExecutions();

    sut.execute();

    EXPECT_EQ(isFree, false);
    EXPECT_TRUE(waiter->returnsWithin(limit));
}

TEST(PcmItemTest, WaitReturnsAtOnceWhenNothingRuns)
{
    PcmItem sut(doNothing, 1ms);

    EXPECT_TRUE(Waiter(sut).returnsWithin(limit));
    sut.execute();
    EXPECT_TRUE(Waiter(sut).returnsWithin(limit));
}

TEST(PcmItemTest, WaitOnAnotherThreadBlocksUntilTheFunctionReturns)
{
    HeldFunction function;
    PcmItem sut(std::ref(function), 1ms);
    auto const execution = std::async(std::launch::async, [&sut] { sut.execute(); });
    ASSERT_TRUE(function.waitEntered());
    Waiter const waiter(sut);

    EXPECT_FALSE(waiter.returnsWithin(watchTime));
    function.release();

    EXPECT_TRUE(waiter.returnsWithin(limit));
}

TEST(PcmItemTest, WaitInsideTheFunctionReturnsAtOnce)
{
    PcmItem* self = nullptr;
    auto const returned = std::make_shared<std::promise<void>>();
    auto const sut = std::make_shared<PcmItem>(
        [&self, returned]
        {
            self->waitEndOfExecutionIfAny();
            returned->set_value();
        },
        1ms);
    self = sut.get();

    std::thread execution([sut] { sut->execute(); });
    bool const inTime = returned->get_future().wait_for(limit) == std::future_status::ready;
    inTime ? execution.join() : execution.detach();

    EXPECT_TRUE(inTime);
}

TEST(PcmItemTest, ForbiddingDuringAnExecutionNeitherBlocksNorDisturbsIt)
{
    LogCapture log;
    log.expect(isLine(Severity::Warning, loggerName, forbiddenText));
    HeldFunction function;
    PcmItem sut(std::ref(function), 1ms);
    auto const execution = std::async(std::launch::async, [&sut] { sut.execute(); });
    ASSERT_TRUE(function.waitEntered());

    auto const forbidding = std::async(std::launch::async, [&sut] { sut.forbidFurtherExecutions(); });
    EXPECT_EQ(forbidding.wait_for(limit), std::future_status::ready);
    EXPECT_THAT(log.lines(), IsEmpty());
    function.release();
    EXPECT_EQ(execution.wait_for(limit), std::future_status::ready);

    sut.execute();
    EXPECT_EQ(function.entries, 1);
    EXPECT_THAT(log.lines(), ElementsAre(isLine(Severity::Warning, loggerName, forbiddenText)));
}

TEST(PcmItemTest, FunctionMayForbidItsOwnItem)
{
    LogCapture log;
    log.expect(isLine(Severity::Warning, loggerName, forbiddenText));
    PcmItem* self = nullptr;
    int calls = 0;
    PcmItem sut(
        [&]
        {
            ++calls;
            self->forbidFurtherExecutions();
        },
        1ms);
    self = &sut;

    sut.execute();
    sut.execute();

    EXPECT_EQ(calls, 1);
}

TEST(PcmItemTest, ExecutionsOfOneItemNeverOverlap)
{
    std::atomic<int> inside{0};
    std::atomic<int> overlaps{0};
    int calls = 0; // by the item's own lock alone
    PcmItem sut(
        [&]
        {
            overlaps += inside.fetch_add(1);
            ++calls;
            std::this_thread::yield();
            inside.fetch_sub(1);
        },
        1ms);
    auto const executeOften = [&sut]
    {
        for (int i = 0; i < 1000; ++i)
        {
            sut.execute();
        }
    };

    std::thread other(executeOften);
    executeOften();
    other.join();

    EXPECT_EQ(overlaps, 0);
    EXPECT_EQ(calls, 2000);
}

TEST(PcmItemTest, FunctionMayExecuteItsOwnItem)
{
    int calls = 0;
    std::unique_ptr<PcmItem> sut;
    sut = std::make_unique<PcmItem>(
        [&]
        {
            if (++calls < 3)
            {
                sut->execute();
            }
        },
        1ms);

    sut->execute();

    EXPECT_EQ(calls, 3);
}

}

}

// The program's own steady clock, which the linker prefers to the standard library's, also in the libraries it uses.
std::chrono::steady_clock::time_point std::chrono::steady_clock::now() noexcept
{
    using namespace Halden::Tavro::Utils;
    if (clockStopped)
    {
        return at(std::chrono::nanoseconds(stoppedAt));
    }
    timespec time{};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return at(std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec));
}
