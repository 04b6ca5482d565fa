#include "scheduling/CountsCopies.h"
#include "scheduling/HeldCall.h"
#include "scheduling/SchedulerSleep.h"
#include "support/LogCapture.h"
#include "support/Resources.h"
#include "support/WaitFor.h"

#include <utils/PeriodicCallerManager.h>

#include <gmock/gmock.h>

#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <functional>
#include <future>
#include <limits>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <tuple>
#include <type_traits>
#include <vector>

using namespace Halden::Tavro;
using namespace Halden::Tavro::TestSupport;
using namespace Halden::Tavro::Utils;
using namespace std::chrono_literals;
using namespace testing;

namespace
{

using Log::Severity;
using std::chrono::duration_cast;
using std::chrono::milliseconds;
using std::chrono::steady_clock;
using Strategy = PeriodicCallerManager::ExecutionStrategy;
using Token = std::unique_ptr<PeriodicCallerManagerTokenIfc>;

static_assert(static_cast<int>(Strategy::ThreadPool) == 0 && static_cast<int>(Strategy::Sequential) == 1);
static_assert(std::is_abstract_v<PeriodicCallerManagerIfc> && std::has_virtual_destructor_v<PeriodicCallerManagerIfc>);
static_assert(std::is_base_of_v<std::enable_shared_from_this<PeriodicCallerManager>, PeriodicCallerManager>);
static_assert(!std::is_copy_constructible_v<PeriodicCallerManager> &&
              !std::is_copy_assignable_v<PeriodicCallerManager>);

constexpr auto logger = "Halden::Tavro::Utils::PeriodicCallerManager(sensors)";

/// A fresh item with one of these periods is due when the machine has been up for that long, so never in a test.
constexpr std::chrono::seconds threeYears{100'000'000};
constexpr std::chrono::seconds sixYears{200'000'000};
constexpr std::chrono::seconds thirtyYears{1'000'000'000};

milliseconds sinceBoot()
{
    return duration_cast<milliseconds>(steady_clock::now().time_since_epoch());
}

/// Makes a fresh item due at once, and then not again while a test runs.
milliseconds longPeriod()
{
    return std::min<milliseconds>(1h, sinceBoot() / 2);
}

steady_clock::time_point afterBoot(steady_clock::duration time)
{
    return steady_clock::time_point(time);
}

/// Names the operations that derived classes reach. Managers are not made from it: its constructor and destructor would
/// set the type of an object on which the scheduler thread is at work already.
struct Opened : PeriodicCallerManager
{
    using PeriodicCallerManager::dueUntil;
    using PeriodicCallerManager::nextPcmDueTime;
    using PeriodicCallerManager::updateSchedulerNextDueTime;
};

std::vector<std::shared_ptr<PcmItemIfc>> dueUntil(PeriodicCallerManager& manager, steady_clock::time_point until)
{
    return (manager.*&Opened::dueUntil)(until);
}

steady_clock::time_point nextPcmDueTime(PeriodicCallerManager& manager)
{
    return (manager.*&Opened::nextPcmDueTime)();
}

std::vector<milliseconds> periodsDueUntil(PeriodicCallerManager& manager, steady_clock::time_point until)
{
    std::vector<milliseconds> periods;
    for (auto const& item : dueUntil(manager, until))
    {
        periods.push_back(item->period());
    }
    return periods;
}

auto line(Severity severity, std::string const& text)
{
    return isLine(severity, logger, text);
}

auto trace(std::string const& text)
{
    return line(Severity::Trace, text);
}

/// What add() logs. Its "%lu" shows the low bits alone where `unsigned long` has 32.
std::string addingText(long long periodInMs)
{
    return "Adding item with period (" + std::to_string(static_cast<unsigned long>(periodInMs)) + ")ms";
}

class PeriodicCallerManagerTest : public Test
{
protected:
    static std::shared_ptr<PeriodicCallerManager> make(Strategy strategy = Strategy::Sequential,
                                                       std::string const& name = "sensors")
    {
        auto manager = std::make_shared<PeriodicCallerManager>(strategy, name);
        SchedulerSleep::await();
        return manager;
    }

    /// Registers a function while the scheduler sleeps, for a request just before its sleep would get lost.
    static Token addAsleep(PeriodicCallerManager& manager, std::function<void()> function,
                           std::chrono::duration<double> period)
    {
        SchedulerSleep::await();
        return manager.add(std::move(function), period);
    }

    /// The manager's own lines so far, without what the scheduler logged after the given number.
    std::vector<LogLine> firstLines(std::size_t count) const
    {
        auto lines = log.linesOf(logger);
        lines.resize(std::min(lines.size(), count));
        return lines;
    }

    /// Registers a function that ends its registration in its n-th call: there the scheduler does not read its list.
    static void runTimes(int times, PeriodicCallerManager& manager, std::chrono::duration<double> period)
    {
        int calls = 0;
        std::promise<Token> handed;
        std::promise<void> ended;
        auto const function = [&]
        {
            if (++calls == times)
            {
                handed.get_future().get().reset();
                ended.set_value();
            }
        };
        handed.set_value(manager.add(function, period));

        EXPECT_EQ(ended.get_future().wait_for(20s), std::future_status::ready);
        SchedulerSleep::await();
    }

    /// Ends the registration of a function with a period of a tenth of a second or more while the scheduler sleeps.
    void end(Token& token)
    {
        log.expect(forbidden); // should this thread be held up until the function is due again
        SchedulerSleep::await(50ms);
        token.reset();
        SchedulerSleep::await();
    }

    static bool hasBecome(std::atomic<int> const& calls, int count)
    {
        return waitFor([&] { return calls >= count; });
    }

    LogCapture log;
    testing::Matcher<LogLine const&> const forbidden =
        isLine(Severity::Warning, "Halden::Tavro::Utils::PcmItem", std::string("Execution of PCM item is forbidden"));
};

class PeriodicCallerManagerStrategyTest : public PeriodicCallerManagerTest, public WithParamInterface<Strategy>
{
};

INSTANTIATE_TEST_SUITE_P(Both, PeriodicCallerManagerStrategyTest, Values(Strategy::ThreadPool, Strategy::Sequential),
                         [](auto const& strategy)
                         { return strategy.param == Strategy::ThreadPool ? "ThreadPool" : "Sequential"; });

// Life of the manager

TEST_F(PeriodicCallerManagerTest, EmptyManagerLogsItsStartAndItsEnd)
{
    auto sut = make();

    sut.reset();

    EXPECT_THAT(log.linesOf(logger),
                ElementsAre(line(Severity::Info, "+schedulerThread: starting"), trace("dueInPeriod: (0) items"),
                            line(Severity::Info, "stop requested: leaving wait"),
                            line(Severity::Info, "-schedulerThread: exiting without error")));
}

TEST_F(PeriodicCallerManagerTest, LoggerOfAnUnnamedManagerKeepsItsBrackets)
{
    make(Strategy::Sequential, "").reset();

    EXPECT_EQ(log.count(isLine(Severity::Info, "Halden::Tavro::Utils::PeriodicCallerManager()",
                               std::string("+schedulerThread: starting"))),
              1);
}

TEST_F(PeriodicCallerManagerTest, StopBeforeTheFirstPassLeavesNoWait)
{
    std::promise<void> starting;
    std::promise<void> goOn;
    log.onLine(
        [&](LogLine const& logged)
        {
            if (logged.text == "+schedulerThread: starting")
            {
                starting.set_value();
                goOn.get_future().wait_for(20s);
            }
        });
    auto sut = std::make_shared<PeriodicCallerManager>(Strategy::Sequential, "sensors");
    ASSERT_EQ(starting.get_future().wait_for(10s), std::future_status::ready);
    std::size_t const requestsBefore = SchedulerSleep::requests();

    auto const destroyed = std::async(std::launch::async, [&sut] { sut.reset(); });
    bool const stopRequested = waitFor([&] { return SchedulerSleep::requests() > requestsBefore; });
    goOn.set_value();
    EXPECT_EQ(destroyed.wait_for(10s), std::future_status::ready);

    EXPECT_TRUE(stopRequested);
    EXPECT_THAT(log.linesOf(logger), ElementsAre(line(Severity::Info, "+schedulerThread: starting"),
                                                 line(Severity::Info, "-schedulerThread: exiting without error")));
}

TEST_F(PeriodicCallerManagerTest, UnknownStrategyThrowsAndStartsNoThread)
{
    std::size_t const threadsBefore = runningThreads();

    EXPECT_THAT(
        [] { std::make_shared<PeriodicCallerManager>(static_cast<Strategy>(2), "sensors"); },
        ThrowsMessage<std::runtime_error>(StrEq("Unknown execution strategy requested for the PeriodicCallerManager")));
    EXPECT_EQ(runningThreads(), threadsBefore);
    EXPECT_THAT(log.lines(), IsEmpty());
}

/// Makes threads impossible: their stacks do not fit any address space.
class OversizedStacks
{
public:
    OversizedStacks()
    {
        pthread_getattr_default_np(&before);
        pthread_attr_t oversized;
        pthread_attr_init(&oversized);
        pthread_attr_setstacksize(&oversized, std::size_t{15} << (sizeof(std::size_t) * 8 - 4));
        pthread_setattr_default_np(&oversized);
        pthread_attr_destroy(&oversized);
    }

    OversizedStacks(OversizedStacks const&) = delete;
    OversizedStacks& operator=(OversizedStacks const&) = delete;

    ~OversizedStacks()
    {
        pthread_setattr_default_np(&before);
        pthread_attr_destroy(&before);
    }

private:
    pthread_attr_t before{};
};

TEST_P(PeriodicCallerManagerStrategyTest, ConstructorThrowsWhenNoThreadCanBeMade)
{
    std::size_t const threadsBefore = runningThreads();
    {
        OversizedStacks const noThreads;

        EXPECT_THROW(std::make_shared<PeriodicCallerManager>(GetParam(), "sensors"), std::exception);
    }

    EXPECT_EQ(runningThreads(), threadsBefore);
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_P(PeriodicCallerManagerStrategyTest, TokenThatOutlivesAllOwnersKeepsTheManagerAtWork)
{
    std::atomic<int> calls{0};
    auto sut = make(GetParam());
    std::size_t const threadsOfOne = runningThreads();
    Token last = addAsleep(
        *sut, [] {}, longPeriod());
    Token fast = addAsleep(
        *sut, [&calls] { ++calls; }, 100ms);

    sut.reset();
    int const callsBefore = calls;

    EXPECT_TRUE(hasBecome(calls, callsBefore + 3));
    EXPECT_EQ(runningThreads(), threadsOfOne);

    end(fast);
    last.reset();

    EXPECT_TRUE(waitFor([&] { return runningThreads() < threadsOfOne; }));
    EXPECT_EQ(log.count(line(Severity::Info, "-schedulerThread: exiting without error")), 1);
}

// Registration

TEST_F(PeriodicCallerManagerTest, PeriodBelowAMillisecondIsRefused)
{
    log.expect(line(Severity::Error, "PCM item minimum period is 1ms, got 0ms"));
    auto sut = make();

    for (double const seconds : {0.0005, 0.0, 0.0009, -0.0009, std::nan("")})
    {
        log.clear();

        EXPECT_THAT([&] { sut->add([] {}, std::chrono::duration<double>(seconds)); },
                    ThrowsMessage<std::invalid_argument>(StrEq("Period must be greater than zero milliseconds")))
            << seconds;
        EXPECT_THAT(log.lines(), ElementsAre(line(Severity::Error, "PCM item minimum period is 1ms, got 0ms")));
        EXPECT_EQ(nextPcmDueTime(*sut), steady_clock::time_point::max()) << "registered " << seconds;
    }
}

TEST_F(PeriodicCallerManagerTest, PeriodIsTruncatedToMilliseconds)
{
    std::vector<std::pair<double, std::string>> const periods{
        {0.001, "1"}, {0.0019, "1"}, {2.9999, "2999"}, {3.0, "3000"}, {1'000'000.0009, "1000000000"}};
    HeldCall blocker; // keeps the scheduler from reading the list
    auto sut = make();
    Token const blocking = sut->add([&] { blocker(); }, longPeriod());
    EXPECT_TRUE(blocker.awaitEntered());
    for (auto const& [seconds, inMs] : periods)
    {
        log.clear();
        Token const token = sut->add([] {}, std::chrono::duration<double>(seconds));

        EXPECT_EQ(log.count(trace("Adding item with period (" + inMs + ")ms")), 1) << seconds;
    }
    blocker.release();
    SchedulerSleep::await();
}

TEST_F(PeriodicCallerManagerTest, MillisecondItemRunsAgainAndAgain)
{
    auto sut = make();
    auto const begin = steady_clock::now();

    runTimes(20, *sut, std::chrono::duration<double>(0.001));

    EXPECT_GE(steady_clock::now() - begin, 19ms);
}

TEST_F(PeriodicCallerManagerTest, LongestPeriodIsThirtyFourYears)
{
    auto sut = make();

    Token const endless = addAsleep(
        *sut, [] {}, std::chrono::duration<double>(std::numeric_limits<double>::infinity()));
    Token const huge = addAsleep(
        *sut, [] {}, std::chrono::duration<double>(1e300));

    EXPECT_EQ(log.count(trace(addingText(1073741824000))), 2);
    EXPECT_EQ(nextPcmDueTime(*sut), afterBoot(std::chrono::seconds(1 << 30)));
    SchedulerSleep::await();
}

TEST_F(PeriodicCallerManagerTest, NegativePeriodRunsPassesBackToBack)
{
    auto sut = make();

    runTimes(100, *sut, -5s);

    EXPECT_EQ(log.count(trace("Adding item with period (" + std::to_string(static_cast<unsigned long>(-5000)) + ")ms")),
              1);
    // The next due time was always past by the whole period.
    EXPECT_EQ(log.count(isLine(Severity::Trace, logger,
                               AllOf(StartsWith("Executing (1) took ("), HasSubstr("ms which means (-5")))),
              99);
}

TEST_F(PeriodicCallerManagerTest, MostNegativePeriodIsAcceptedToo)
{
    auto sut = make();

    runTimes(3, *sut, std::chrono::duration<double>(-std::numeric_limits<double>::infinity()));
}

TEST_F(PeriodicCallerManagerTest, AddCopiesTheFunctionOnce)
{
    int copies = 0;
    std::function<void()> function = CountsCopies(copies);
    auto sut = make();
    copies = 0;

    Token const token = sut->add(std::move(function), thirtyYears);

    EXPECT_EQ(copies, 1);
    SchedulerSleep::await();
}

TEST_F(PeriodicCallerManagerTest, ManagerOnTheStackThrowsOnAddButKeepsTheItem)
{
    std::atomic<int> calls{0};
    PeriodicCallerManager sut(Strategy::Sequential, "sensors");
    SchedulerSleep::await();

    EXPECT_THROW(sut.add([&calls] { ++calls; }, 10ms), std::bad_weak_ptr);

    EXPECT_TRUE(hasBecome(calls, 3));
    EXPECT_EQ(log.count(trace("Item added. Having (1) now")), 1);
}

TEST_F(PeriodicCallerManagerTest, ManagerInAUniquePointerThrowsOnAddButKeepsTheItem)
{
    std::atomic<int> calls{0};
    auto const sut = std::make_unique<PeriodicCallerManager>(Strategy::ThreadPool, "sensors");
    SchedulerSleep::await();

    EXPECT_THROW(sut->add([&calls] { ++calls; }, 10ms), std::bad_weak_ptr);

    EXPECT_TRUE(hasBecome(calls, 3));
}

TEST_F(PeriodicCallerManagerTest, AddOfAnEarlierItemLogsEachStep)
{
    auto sut = make();
    log.clear();

    Token const first = sut->add([] {}, thirtyYears);
    SchedulerSleep::await();

    EXPECT_THAT(firstLines(4),
                ElementsAre(trace(addingText(1000000000000)), trace("Item added. Having (1) now"),
                            trace("Scheduler next due time (9223372036854ms) lowered to (1000000000000ms)"),
                            trace("notify scheduler to update the wait_until time")));
    log.clear();

    Token const second = sut->add([] {}, sixYears);
    SchedulerSleep::await();

    EXPECT_THAT(firstLines(4),
                ElementsAre(trace(addingText(200000000000)), trace("Item added. Having (2) now"),
                            trace("Scheduler next due time (1000000000000ms) lowered to (200000000000ms)"),
                            trace("notify scheduler to update the wait_until time")));
}

TEST_F(PeriodicCallerManagerTest, AddOfALaterItemLeavesTheNextDueTime)
{
    auto sut = make();
    Token const first = addAsleep(
        *sut, [] {}, sixYears);
    SchedulerSleep::await();
    log.clear();

    Token const later = addAsleep(
        *sut, [] {}, thirtyYears);
    Token const equal = addAsleep(
        *sut, [] {}, sixYears);

    EXPECT_EQ(log.count(trace("Item added. Having (3) now")), 1);
    EXPECT_EQ(log.count(isLine(Severity::Trace, logger, HasSubstr("lowered"))), 0);
    EXPECT_EQ(log.count(isLine(Severity::Trace, logger, HasSubstr("notify"))), 0);
    SchedulerSleep::await();
}

TEST_F(PeriodicCallerManagerTest, AddWakesTheSchedulerForItsItemAndOnceMoreForAnEarlierDueTime)
{
    auto sut = make();
    std::size_t const requestsBefore = SchedulerSleep::requests();

    Token const earliest = addAsleep(
        *sut, [] {}, sixYears);
    EXPECT_EQ(SchedulerSleep::requests(), requestsBefore + 2);
    Token const later = addAsleep(
        *sut, [] {}, thirtyYears);
    EXPECT_EQ(SchedulerSleep::requests(), requestsBefore + 3);

    SchedulerSleep::await();
}

// Removal

TEST_F(PeriodicCallerManagerTest, RemoveOfTheEarliestItemLowersTheNextDueTimeToALaterOneWithoutWakingUp)
{
    auto sut = make();
    Token later = addAsleep(
        *sut, [] {}, thirtyYears);
    Token earlier = addAsleep(
        *sut, [] {}, sixYears);
    SchedulerSleep::await();
    std::size_t const requestsBefore = SchedulerSleep::requests();
    log.clear();

    earlier.reset();
    later.reset();

    EXPECT_THAT(log.linesOf(logger),
                ElementsAre(trace("+remove"), trace("~remove: removed one, now has 1 items"),
                            trace("Scheduler next due time (200000000000ms) lowered to (1000000000000ms)"),
                            trace("+remove"), trace("~remove: removed one, now has 0 items"),
                            trace("Scheduler next due time (1000000000000ms) lowered to (9223372036854ms)")));
    EXPECT_EQ(SchedulerSleep::requests(), requestsBefore);
}

TEST_F(PeriodicCallerManagerTest, RemoveOfAnUnknownItemWarnsAndLeavesTheOthers)
{
    log.expect(line(Severity::Warning, "-remove: item to be removed not in the list!"));
    auto sut = make();
    Token const token = sut->add([] {}, sixYears);
    SchedulerSleep::await();
    log.clear();

    sut->remove(std::make_shared<PcmItem>([] {}, sixYears));
    sut->remove(nullptr);

    EXPECT_THAT(log.linesOf(logger),
                ElementsAre(trace("+remove"), line(Severity::Warning, "-remove: item to be removed not in the list!"),
                            trace("+remove"), line(Severity::Warning, "-remove: item to be removed not in the list!")));
    EXPECT_EQ(nextPcmDueTime(*sut), afterBoot(sixYears));
}

// What derived classes reach

TEST_F(PeriodicCallerManagerTest, NextDueTimeIsTheEarliestOrTheGreatest)
{
    auto sut = make();
    EXPECT_EQ(nextPcmDueTime(*sut), steady_clock::time_point::max());

    Token const later = addAsleep(
        *sut, [] {}, thirtyYears);
    Token const earlier = addAsleep(
        *sut, [] {}, sixYears);
    Token const between = addAsleep(
        *sut, [] {}, sixYears + 1ms);

    EXPECT_EQ(nextPcmDueTime(*sut), afterBoot(sixYears));
    SchedulerSleep::await();
}

TEST_F(PeriodicCallerManagerTest, DueUntilIncludesExactlyThatTime)
{
    auto sut = make();
    Token const token = sut->add([] {}, sixYears);
    SchedulerSleep::await();

    EXPECT_THAT(periodsDueUntil(*sut, afterBoot(sixYears - 1ns)), IsEmpty());
    EXPECT_THAT(periodsDueUntil(*sut, afterBoot(sixYears)), ElementsAre(sixYears));
    EXPECT_THAT(periodsDueUntil(*sut, afterBoot(sixYears + 1ns)), ElementsAre(sixYears));
}

TEST_F(PeriodicCallerManagerTest, DueUntilSortsTheMostOverdueFirstAndLogsTheirNumber)
{
    auto sut = make();
    Token const third = addAsleep(
        *sut, [] {}, sixYears + 1ms);
    Token const first = addAsleep(
        *sut, [] {}, threeYears);
    Token const notDue = addAsleep(
        *sut, [] {}, thirtyYears);
    Token const second = addAsleep(
        *sut, [] {}, sixYears);
    SchedulerSleep::await();

    EXPECT_THAT(periodsDueUntil(*sut, afterBoot(sixYears + 1ms)), ElementsAre(threeYears, sixYears, sixYears + 1ms));
    EXPECT_EQ(log.count(trace("dueInPeriod: (3) items")), 1);
}

TEST_F(PeriodicCallerManagerTest, DueUntilHoldsEachItemOfEqualDueTimeOnce)
{
    auto sut = make();
    std::vector<Token> tokens;
    for (int i = 0; i < 20; ++i)
    {
        tokens.push_back(addAsleep(
            *sut, [] {}, sixYears));
    }
    SchedulerSleep::await();

    auto due = dueUntil(*sut, afterBoot(sixYears));
    std::sort(due.begin(), due.end());

    EXPECT_EQ(due.size(), 20);
    EXPECT_EQ(std::adjacent_find(due.begin(), due.end()), due.end());
}

TEST_F(PeriodicCallerManagerTest, DueUntilWaitsForAChangeOfTheListInProgress)
{
    auto sut = make();
    Token token = addAsleep(
        *sut, [] {}, sixYears);
    SchedulerSleep::await();
    HeldCall removal;
    log.onLine(
        [&removal](LogLine const& line)
        {
            if (line.text == "+remove") // the list is locked
            {
                removal();
            }
        });
    auto removing = std::async(std::launch::async, [&token] { token.reset(); });
    ASSERT_TRUE(removal.awaitEntered());

    auto due =
        std::async(std::launch::async, [&sut] { return dueUntil(*sut, steady_clock::time_point::max()).size(); });
    EXPECT_EQ(due.wait_for(100ms), std::future_status::timeout);
    removal.release();

    EXPECT_EQ(due.get(), 0U);
    removing.get();
    SchedulerSleep::await();
}

TEST_F(PeriodicCallerManagerTest, UpdateWithoutChangeLogsNothingAndWakesNobody)
{
    auto sut = make();
    Token const token = sut->add([] {}, sixYears);
    SchedulerSleep::await();
    std::size_t const requestsBefore = SchedulerSleep::requests();
    log.clear();

    ((*sut).*&Opened::updateSchedulerNextDueTime)();

    EXPECT_THAT(log.lines(), IsEmpty());
    EXPECT_EQ(SchedulerSleep::requests(), requestsBefore);
}

// Scheduling

TEST_P(PeriodicCallerManagerStrategyTest, FreshItemRunsInTheNextPass)
{
    std::atomic<int> calls{0};
    auto sut = make(GetParam());
    log.clear();

    Token const token = sut->add([&calls] { ++calls; }, longPeriod());

    EXPECT_TRUE(hasBecome(calls, 1));
    SchedulerSleep::await();
    EXPECT_EQ(calls, 1);
    auto const lines = log.linesOf(logger);
    auto const pass = std::find_if(lines.begin(), lines.end(),
                                   [](auto const& logged) { return logged.text.rfind("dueInPeriod", 0) == 0; });
    ASSERT_NE(pass, lines.end());
    EXPECT_EQ(pass->text, "dueInPeriod: (1) items");
}

TEST_P(PeriodicCallerManagerStrategyTest, FreshItemRunsAtOnceAlsoBesideOneOfAShorterPeriod)
{
    std::atomic<int> shortCalls{0};
    std::atomic<int> longCalls{0};
    auto sut = make(GetParam());
    Token const shorter = sut->add([&shortCalls] { ++shortCalls; }, longPeriod() / 2);
    EXPECT_TRUE(hasBecome(shortCalls, 1));
    SchedulerSleep::await();
    log.clear();

    Token const longer = sut->add([&longCalls] { ++longCalls; }, longPeriod());

    EXPECT_TRUE(hasBecome(longCalls, 1));
    EXPECT_EQ(shortCalls, 1);
    EXPECT_EQ(log.count(trace("notify scheduler to update the wait_until time")), 0);
    SchedulerSleep::await();
}

TEST_F(PeriodicCallerManagerTest, BatchRunsTheMostOverdueFirst)
{
    HeldCall blocker;
    std::vector<std::string> order; // on the scheduler thread, then read after its pass
    std::atomic<int> calls{0};
    auto sut = make();
    Token const blocking = sut->add([&] { blocker(); }, longPeriod());
    EXPECT_TRUE(blocker.awaitEntered());
    log.clear();

    auto const record = [&](char const* name)
    {
        return [&order, &calls, name]
        {
            order.emplace_back(name);
            ++calls;
        };
    };
    milliseconds const now = sinceBoot();
    Token const younger = sut->add(record("due 10 ms ago"), now - 10ms);
    Token const older = sut->add(record("due 50 ms ago"), now - 50ms);
    blocker.release();

    EXPECT_TRUE(hasBecome(calls, 2));
    EXPECT_THAT(order, ElementsAre("due 50 ms ago", "due 10 ms ago"));
    EXPECT_EQ(log.count(trace("dueInPeriod: (2) items")), 1);
    SchedulerSleep::await();
}

TEST_F(PeriodicCallerManagerTest, PassTextTellsDurationAndNextDueTime)
{
    std::atomic<std::int64_t> calledAt{0};
    std::atomic<std::int64_t> loggedAt{0};
    milliseconds const period = longPeriod();
    auto sut = make();
    log.onLine(
        [&](LogLine const& logged)
        {
            if (logged.text.rfind("Executing", 0) == 0)
            {
                loggedAt = sinceBoot().count();
            }
        });
    auto const addedAt = sinceBoot().count();

    Token const token = sut->add(
        [&]
        {
            calledAt = sinceBoot().count();
            std::this_thread::sleep_for(30ms); // what the text tells
        },
        period);
    ASSERT_TRUE(waitFor([&] { return loggedAt > 0; }));
    SchedulerSleep::await();

    auto const lines = log.linesOf(logger);
    auto const found = std::find_if(lines.begin(), lines.end(),
                                    [](auto const& logged) { return logged.text.rfind("Executing", 0) == 0; });
    ASSERT_NE(found, lines.end());
    EXPECT_EQ(found->severity, Severity::Trace);
    long long took = 0;
    long long next = 0;
    long long left = 0;
    ASSERT_EQ(std::sscanf(found->text.c_str(),
                          "Executing (1) took (%lld)ms. Now waiting until (%lld)ms which means (%lld)", &took, &next,
                          &left),
              3);
    EXPECT_EQ(found->text, "Executing (1) took (" + std::to_string(took) + ")ms. Now waiting until (" +
                               std::to_string(next) + ")ms which means (" + std::to_string(left) + ")ms from now");
    EXPECT_THAT(took, AllOf(Ge(30), Le(loggedAt.load() - addedAt)));
    EXPECT_THAT(next - period.count(), AllOf(Ge(addedAt), Le(calledAt.load())));
    EXPECT_THAT(next - left, AllOf(Ge(calledAt + 30), Le(loggedAt.load() + 1)));
}

TEST_F(PeriodicCallerManagerTest, PassWithoutDueItemsLogsNoPassText)
{
    auto sut = make();

    Token const token = sut->add([] {}, sixYears);
    SchedulerSleep::await();

    EXPECT_GE(log.count(trace("dueInPeriod: (0) items")), 1);
    EXPECT_EQ(log.count(isLine(Severity::Trace, logger, HasSubstr("Executing"))), 0);
}

TEST_F(PeriodicCallerManagerTest, PassTextIsLoggedAtTraceOnly)
{
    std::atomic<int> calls{0};
    auto sut = make();
    Log::LoggerProxy::instance().setThreshold(Severity::Debug);
    log.clear();

    Token token = sut->add([&calls] { ++calls; }, longPeriod());
    EXPECT_TRUE(hasBecome(calls, 1));
    SchedulerSleep::await();
    token.reset();

    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_P(PeriodicCallerManagerStrategyTest, RequestMadeDuringTheExecutionGivesAnotherPass)
{
    HeldCall blocker;
    Token added;
    auto sut = make(GetParam());
    Token const blocking = sut->add([&] { blocker(); }, longPeriod());
    EXPECT_TRUE(blocker.awaitEntered());
    Token const adding = sut->add([&] { added = sut->add([] {}, sixYears); }, longPeriod());
    log.clear();

    blocker.release();
    EXPECT_TRUE(log.waitFor(trace("Item added. Having (3) now")));
    SchedulerSleep::await();

    std::vector<std::string> passes;
    for (auto const& logged : log.linesOf(logger))
    {
        if (logged.text.rfind("dueInPeriod", 0) == 0)
        {
            passes.push_back(logged.text);
        }
    }
    EXPECT_THAT(passes, ElementsAre("dueInPeriod: (1) items", "dueInPeriod: (0) items"));
}

TEST_F(PeriodicCallerManagerTest, IdleManagerMakesNoWakeUps)
{
    std::size_t const sleepsBefore = SchedulerSleep::count();
    auto sut = make();
    ASSERT_EQ(SchedulerSleep::count(), sleepsBefore + 1);

    std::this_thread::sleep_for(300ms); // a poller would show

    EXPECT_EQ(SchedulerSleep::count(), sleepsBefore + 1);
}

TEST_F(PeriodicCallerManagerTest, RequestBetweenTheLastLookAndTheSleepIsServedAtTheNextDueTime)
{
    std::atomic<int> ticks{0};
    std::promise<steady_clock::time_point> called;
    steady_clock::time_point dueTime;
    Token late;
    auto sut = make();
    Token ticking = sut->add([&] { ++ticks; }, 300ms);
    EXPECT_TRUE(hasBecome(ticks, 1));

    SchedulerSleep::beforeNext(
        [&]
        {
            dueTime = nextPcmDueTime(*sut);
            late = sut->add([&] { called.set_value(steady_clock::now()); }, longPeriod());
        });
    auto calledAt = called.get_future();

    EXPECT_EQ(calledAt.wait_for(10s), std::future_status::ready);
    EXPECT_GE(calledAt.get(), dueTime);
    end(ticking);
}

TEST_F(PeriodicCallerManagerTest, StartsAreAtLeastOnePeriodApart)
{
    std::atomic<int> tens{0};
    std::atomic<int> fours{0};
    auto sut = make();
    auto const begin = steady_clock::now();

    Token ten = sut->add([&tens] { ++tens; }, 100ms);
    Token four = sut->add([&fours] { ++fours; }, 250ms);
    EXPECT_TRUE(hasBecome(tens, 10));
    EXPECT_TRUE(hasBecome(fours, 4));
    int const countOfTens = tens;
    int const countOfFours = fours;
    auto const elapsed = steady_clock::now() - begin;
    SchedulerSleep::await(40ms);
    ten.reset();
    end(four);

    EXPECT_GE(elapsed, 900ms);
    EXPECT_LT(elapsed, 5s);
    EXPECT_LE(countOfTens, elapsed / 100ms + 1);
    EXPECT_LE(countOfFours, elapsed / 250ms + 1);
}

TEST_F(PeriodicCallerManagerTest, MissedPeriodsAreNotMadeUp)
{
    HeldCall blocker;
    std::vector<steady_clock::time_point> starts; // on the scheduler thread, then read after the removal
    std::atomic<int> calls{0};
    auto sut = make();
    Token token = sut->add(
        [&]
        {
            starts.push_back(steady_clock::now());
            ++calls;
            blocker();
        },
        100ms);
    EXPECT_TRUE(blocker.awaitEntered());

    std::this_thread::sleep_for(500ms); // five periods are missed
    blocker.release();
    EXPECT_TRUE(hasBecome(calls, 5));
    end(token);

    ASSERT_GE(starts.size(), 5);
    // Three periods, less what the second start may have been noted late; at once if missed ones were made up.
    EXPECT_GE(starts[4] - starts[1], 200ms);
}

TEST_F(PeriodicCallerManagerTest, RemovedItemIsKeptUntilTheNextWakeUp)
{
    HeldCall blocker;
    std::atomic<int> calls{0};
    auto held = std::make_shared<int>(0);
    std::weak_ptr<int> const watched = held;
    auto sut = make();
    Token const blocking = sut->add([&] { blocker(); }, longPeriod());
    EXPECT_TRUE(blocker.awaitEntered());
    Token token = sut->add([&calls, held = std::move(held)] { ++calls; }, longPeriod());
    blocker.release();
    EXPECT_TRUE(hasBecome(calls, 1));
    SchedulerSleep::await();

    token.reset();
    bool const keptAsleep = !watched.expired();
    Token const waking = sut->add([] {}, sixYears);
    SchedulerSleep::await();

    EXPECT_TRUE(keptAsleep);
    EXPECT_TRUE(watched.expired());
}

// Ends of registrations

TEST_P(PeriodicCallerManagerStrategyTest, TokenWaitsForItsRunningFunctionWhichIsNeverCalledAgain)
{
    HeldCall held;
    std::atomic<bool> finished{false};
    std::atomic<int> others{0};
    auto sut = make(GetParam());
    Token token = sut->add(
        [&]
        {
            held();
            finished = true;
        },
        1ms);
    EXPECT_TRUE(held.awaitEntered());

    auto finishedFirst = std::async(std::launch::async,
                                    [&]
                                    {
                                        token.reset();
                                        return finished.load();
                                    });
    EXPECT_TRUE(log.waitFor(trace("~remove: removed one, now has 0 items")));
    EXPECT_EQ(finishedFirst.wait_for(50ms), std::future_status::timeout);
    held.release();

    EXPECT_TRUE(finishedFirst.get());
    Token other = addAsleep(
        *sut, [&others] { ++others; }, 100ms);
    EXPECT_TRUE(hasBecome(others, 3));
    EXPECT_EQ(held.count(), 1);
    end(other);
}

TEST_P(PeriodicCallerManagerStrategyTest, TokenMayBeDestroyedInsideItsOwnFunctionWhichRunsOn)
{
    std::promise<Token> handed;
    std::promise<void> ranOn;
    std::atomic<int> calls{0};
    std::atomic<int> others{0};
    auto sut = make(GetParam());

    handed.set_value(sut->add(
        [&]
        {
            ++calls;
            handed.get_future().get().reset();
            ranOn.set_value();
        },
        1ms));

    EXPECT_EQ(ranOn.get_future().wait_for(10s), std::future_status::ready);
    EXPECT_EQ(log.count(trace("~remove: removed one, now has 0 items")), 1);
    Token other = addAsleep(
        *sut, [&others] { ++others; }, 100ms);
    EXPECT_TRUE(hasBecome(others, 3));
    EXPECT_EQ(calls, 1);
    end(other);
}

TEST_F(PeriodicCallerManagerTest, ItemRemovedByAnEarlierOneOfItsBatchIsRefused)
{
    log.expect(forbidden);
    HeldCall blocker;
    std::atomic<int> callsOfA{0};
    std::atomic<int> callsOfB{0};
    Token tokenB;
    auto sut = make();
    Token const blocking = sut->add([&] { blocker(); }, longPeriod());
    EXPECT_TRUE(blocker.awaitEntered());

    milliseconds const now = sinceBoot();
    tokenB = sut->add([&callsOfB] { ++callsOfB; }, now - 10ms);
    Token const tokenA = sut->add(
        [&]
        {
            tokenB.reset();
            ++callsOfA;
        },
        now - 50ms);
    blocker.release();

    EXPECT_TRUE(hasBecome(callsOfA, 1));
    EXPECT_TRUE(log.waitFor(forbidden));
    SchedulerSleep::await();
    EXPECT_EQ(log.count(forbidden), 1);
    EXPECT_EQ(callsOfB, 0);
}

TEST_F(PeriodicCallerManagerTest, AddAndRemoveFromSeveralThreadsAtOnceKeepTheList)
{
    constexpr int threadCount = 4;
    constexpr int rounds = 200;
    HeldCall blocker; // keeps the scheduler from reading the list
    auto sut = make();
    Token const blocking = sut->add([&] { blocker(); }, sinceBoot() / 2);
    EXPECT_TRUE(blocker.awaitEntered());
    std::vector<Token> kept(threadCount);

    std::vector<std::thread> threads;
    for (auto& last : kept)
    {
        threads.emplace_back(
            [&sut, &last]
            {
                for (int i = 0; i < rounds; ++i)
                {
                    last = sut->add([] {}, sixYears);
                }
            });
    }
    for (auto& thread : threads)
    {
        thread.join();
    }

    EXPECT_EQ(dueUntil(*sut, steady_clock::time_point::max()).size(), threadCount + 1);
    EXPECT_EQ(log.count(isLine(Severity::Trace, logger, HasSubstr("Item added."))), threadCount * rounds + 1);
    blocker.release();
    SchedulerSleep::await();
}

}
