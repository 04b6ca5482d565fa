// What holds for every manager, so that a service's tests may trust the one with a time of its own. Functions are added
// and removed by functions wherever that is possible: there no manager reads its list.

#include "scheduling/SchedulerSleep.h"
#include "support/WaitFor.h"

#include <utils/testing/LogCaptureGmock.h>
#include <utils/testing/ManualTimeManager.h>

#include <gmock/gmock.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <functional>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

namespace Halden::Tavro::Utils::Testing
{

namespace
{

using namespace TestSupport;
using namespace std::chrono_literals;
using namespace testing;
using Log::Severity;
using std::chrono::duration_cast;
using std::chrono::milliseconds;
using std::chrono::steady_clock;
using Strategy = PeriodicCallerManager::ExecutionStrategy;
using Token = std::unique_ptr<PeriodicCallerManagerTokenIfc>;

constexpr auto managerLogger = "Halden::Tavro::Utils::PeriodicCallerManager(sensors)";
constexpr auto itemLogger = "Halden::Tavro::Utils::PcmItem";

/// A manager and the time that it goes by.
class World
{
public:
    explicit World(std::shared_ptr<PeriodicCallerManagerIfc> manager)
        : manager(std::move(manager))
    {
    }

    World(World const&) = delete;
    World& operator=(World const&) = delete;
    virtual ~World() = default;

    virtual steady_clock::time_point now() const = 0;

    /// Lets time pass until the condition holds. @return whether it has come to hold
    virtual bool passUntil(std::function<bool()> const& condition) = 0;

    /// In a function: is busy for that long.
    virtual void spend(milliseconds duration) = 0;

    /// Returns when the manager is in no pass and hears of all that is asked of it.
    virtual void awaitRest() = 0;

    std::shared_ptr<PeriodicCallerManagerIfc> manager;
};

class RealWorld : public World
{
public:
    explicit RealWorld(Strategy strategy)
        : World(std::make_shared<PeriodicCallerManager>(strategy, "sensors"))
    {
        SchedulerSleep::await();
    }

    steady_clock::time_point now() const override { return steady_clock::now(); }
    bool passUntil(std::function<bool()> const& condition) override { return waitFor(condition, 20s); }
    void spend(milliseconds duration) override { std::this_thread::sleep_for(duration); }
    void awaitRest() override { SchedulerSleep::await(); }
};

class ManualWorld : public World
{
public:
    ManualWorld()
        : World(std::make_shared<ManualTimeManager>("sensors"))
        , manual(static_cast<ManualTimeManager&>(*manager))
    {
    }

    steady_clock::time_point now() const override { return manual.now(); }

    bool passUntil(std::function<bool()> const& condition) override
    {
        auto const limit = now() + 20s;
        while (!condition() && now() < limit)
        {
            manual.advance(1ms);
        }
        return condition();
    }

    void spend(milliseconds duration) override { manual.spend(duration); }
    void awaitRest() override {}

private:
    ManualTimeManager& manual;
};

enum class Kind
{
    Manual,
    Sequential,
    ThreadPool
};

std::unique_ptr<World> makeWorld(Kind kind)
{
    switch (kind)
    {
    case Kind::Manual:
        return std::make_unique<ManualWorld>();
    case Kind::Sequential:
        return std::make_unique<RealWorld>(Strategy::Sequential);
    case Kind::ThreadPool:
        return std::make_unique<RealWorld>(Strategy::ThreadPool);
    }
    return nullptr;
}

class ManagerContractTest : public TestWithParam<Kind>
{
protected:
    ~ManagerContractTest() override
    {
        world->awaitRest();
        tokens.clear();
        world->awaitRest();
    }

    /// Functions keep tokens, too, while the test's thread is still about to.
    void keep(Token token)
    {
        std::lock_guard const lock(tokensMutex);
        tokens.push_back(std::move(token));
    }

    milliseconds uptime() const { return duration_cast<milliseconds>(world->now().time_since_epoch()); }

    /// Makes a fresh function due at once, and then not again while a test runs.
    milliseconds longPeriod() const { return std::min<milliseconds>(1h, uptime() / 2); }

    /// Runs the piece as a function of the manager. What it adds is in the next batch, all of it.
    void runInside(std::function<void()> const& piece)
    {
        std::atomic<bool> done{false};
        keep(world->manager->add(
            [piece, &done]
            {
                piece();
                done = true;
            },
            longPeriod()));
        ASSERT_TRUE(world->passUntil([&done] { return done.load(); }));
    }

    /// Adds a function that ends its own registration in its call of that number, and waits for that call.
    void runTimes(int times, std::chrono::duration<double> period, std::function<void()> const& function)
    {
        Token token;
        int calls = 0;
        std::atomic<bool> done{false};
        runInside(
            [&]
            {
                token = world->manager->add(
                    [&]
                    {
                        if (++calls == times)
                        {
                            token.reset();
                        }
                        done = calls >= times;
                        function();
                    },
                    period);
            });
        EXPECT_TRUE(world->passUntil([&done] { return done.load(); }));
        world->awaitRest();
        EXPECT_EQ(calls, times);
    }

    /// The manager's lines about registrations: without those of the scheduler.
    std::vector<std::string> registrationTexts() const
    {
        std::vector<std::string> texts;
        for (auto const& line : log.linesOf(managerLogger))
        {
            bool const isOne =
                Value(line.text, AnyOf(StartsWith("Adding"), StartsWith("Item added"), HasSubstr("remove")));
            if (isOne)
            {
                EXPECT_EQ(line.severity, Severity::Trace);
                texts.push_back(line.text);
            }
        }
        return texts;
    }

    StrictLogCapture log;
    std::unique_ptr<World> world = makeWorld(GetParam());
    std::mutex tokensMutex;
    std::vector<Token> tokens; // of functions that are due once; guarded by tokensMutex until they rest
};

auto const nameOfKind = [](auto const& kind) {
    return kind.param == Kind::Manual ? "Manual" : kind.param == Kind::Sequential ? "Sequential" : "ThreadPool";
};

INSTANTIATE_TEST_SUITE_P(, ManagerContractTest, Values(Kind::Manual, Kind::Sequential, Kind::ThreadPool), nameOfKind);

TEST_P(ManagerContractTest, FreshFunctionIsCalledAtOnceAndNotAgainBeforeItsPeriod)
{
    std::atomic<int> calls{0};

    keep(world->manager->add([&calls] { ++calls; }, longPeriod()));

    EXPECT_TRUE(world->passUntil([&calls] { return calls > 0; }));
    runTimes(5, 1ms, [] {});
    EXPECT_EQ(calls, 1);
}

TEST_P(ManagerContractTest, StartsAreOnePeriodApart)
{
    auto const begin = world->now();
    steady_clock::time_point last;

    runTimes(4, 20ms, [&] { last = world->now(); });

    EXPECT_GE(last - begin, 60ms);
}

TEST_P(ManagerContractTest, MissedPeriodsAreNotMadeUp)
{
    auto const begin = world->now();
    std::vector<steady_clock::time_point> starts;

    runTimes(5, 20ms,
             [&]
             {
                 starts.push_back(world->now());
                 if (starts.size() == 1)
                 {
                     world->spend(100ms);
                 }
             });

    ASSERT_EQ(starts.size(), 5);
    EXPECT_GE(starts[4] - begin, 160ms);
}

TEST_P(ManagerContractTest, FirstExceptionIsAnErrorAndLaterOnesOfAnyKindAreTraces)
{
    auto const first = isLine(Severity::Error, itemLogger,
                              std::string("PcmItem execution threw exception. Exception: no answer.\n"
                                          "Further exceptions will be logged with trace level"));
    log.expect(first);
    int calls = 0;

    runTimes(4, 1ms,
             [&]
             {
                 switch (++calls)
                 {
                 case 1:
                 case 3:
                     throw std::runtime_error("no answer");
                 case 2:
                     throw calls;
                 default:
                     return;
                 }
             });

    EXPECT_THAT(
        log.linesOf(itemLogger),
        ElementsAre(first,
                    isLine(Severity::Trace, itemLogger, std::string("PcmItem execution threw unknown exception.")),
                    isLine(Severity::Trace, itemLogger,
                           std::string("PcmItem execution threw exception. Exception: no answer.\n"))));
}

TEST_P(ManagerContractTest, FirstUnknownExceptionIsAnError)
{
    auto const first = isLine(Severity::Error, itemLogger,
                              std::string("PcmItem execution threw unknown exception. "
                                          "Further exceptions will be logged with trace level"));
    log.expect(first);

    runTimes(1, 1ms, [] { throw 1; });

    EXPECT_THAT(log.linesOf(itemLogger), ElementsAre(first));
}

TEST_P(ManagerContractTest, EmptyFunctionIsAnException)
{
    auto const error =
        isLine(Severity::Error, itemLogger, StartsWith("PcmItem execution threw exception. Exception: "));
    log.expect(error);

    keep(world->manager->add(nullptr, longPeriod()));

    EXPECT_TRUE(world->passUntil([&] { return log.count(error) == 1; }));
}

TEST_P(ManagerContractTest, TokenMayBeDestroyedInsideItsOwnFunctionWhichRunsOnAndIsNeverCalledAgain)
{
    Token token;
    std::atomic<int> ends{0};
    runInside(
        [&]
        {
            token = world->manager->add(
                [&]
                {
                    token.reset();
                    ++ends;
                },
                1ms);
        });
    EXPECT_TRUE(world->passUntil([&ends] { return ends > 0; }));

    runTimes(5, 1ms, [] {});

    EXPECT_EQ(ends, 1);
}

TEST_P(ManagerContractTest, FunctionsMayAddFunctions)
{
    std::atomic<int> calls{0};

    runInside([&] { keep(world->manager->add([&calls] { ++calls; }, longPeriod())); });

    EXPECT_TRUE(world->passUntil([&calls] { return calls > 0; }));
}

TEST_P(ManagerContractTest, TokenKeepsTheManager)
{
    std::weak_ptr<PeriodicCallerManagerIfc> const watched = world->manager;
    std::atomic<int> calls{0};
    keep(world->manager->add([&calls] { ++calls; }, longPeriod()));
    EXPECT_TRUE(world->passUntil([&calls] { return calls > 0; }));
    world->awaitRest();

    world->manager.reset();
    bool const isKept = !watched.expired();
    tokens.clear();

    EXPECT_TRUE(isKept);
    EXPECT_TRUE(watched.expired());
    world = makeWorld(GetParam()); // for the end of the test, which rests in a manager
}

TEST_P(ManagerContractTest, PeriodBelowAMillisecondIsRefused)
{
    auto const refused = isLine(Severity::Error, managerLogger, std::string("PCM item minimum period is 1ms, got 0ms"));
    log.expect(refused);

    for (double const seconds : {0.0, 0.0009, -0.0009, std::nan("")})
    {
        log.clear();

        EXPECT_THAT([&] { std::ignore = world->manager->add([] {}, std::chrono::duration<double>(seconds)); },
                    ThrowsMessage<std::invalid_argument>(StrEq("Period must be greater than zero milliseconds")));
        EXPECT_THAT(log.lines(), ElementsAre(refused)) << seconds;
    }
}

TEST_P(ManagerContractTest, FunctionWithANegativePeriodIsAlwaysDue)
{
    runTimes(3, -1s, [&] { world->spend(1ms); });
}

TEST_P(ManagerContractTest, RegistrationAndRemovalLogTheSameLines)
{
    Token token = world->manager->add([] {}, 123456.7899s);
    world->awaitRest();
    token.reset();

    EXPECT_THAT(registrationTexts(), ElementsAre("Adding item with period (123456789)ms", "Item added. Having (1) now",
                                                 "+remove", "~remove: removed one, now has 0 items"));
}

TEST_P(ManagerContractTest, RemovalOfAStrangerIsAWarning)
{
    auto const warning =
        isLine(Severity::Warning, managerLogger, std::string("-remove: item to be removed not in the list!"));
    log.expect(warning);
    world->awaitRest();
    log.clear();

    dynamic_cast<PcmTokenToManagerIfc&>(*world->manager).remove(std::make_shared<PcmItem>([] {}, 1ms));

    EXPECT_THAT(log.linesOf(managerLogger),
                ElementsAre(isLine(Severity::Trace, managerLogger, std::string("+remove")), warning));
}

/// What the managers do that call one function after the other.
class ManagerContractSequentialTest : public ManagerContractTest
{
protected:
    /// The period of a function that is due since that long when it is fresh.
    milliseconds dueSince(milliseconds time) const { return uptime() - time; }
};

INSTANTIATE_TEST_SUITE_P(, ManagerContractSequentialTest, Values(Kind::Manual, Kind::Sequential), nameOfKind);

TEST_P(ManagerContractSequentialTest, BatchRunsTheMostOverdueFirst)
{
    std::vector<std::string> order;
    std::atomic<int> calls{0};
    auto const record = [&](char const* name)
    {
        return [&order, &calls, name]
        {
            order.emplace_back(name);
            ++calls;
        };
    };

    runInside(
        [&]
        {
            keep(world->manager->add(record("due since 10 ms"), dueSince(10ms)));
            keep(world->manager->add(record("due since 50 ms"), dueSince(50ms)));
            keep(world->manager->add(record("due since 30 ms"), dueSince(30ms)));
        });

    EXPECT_TRUE(world->passUntil([&calls] { return calls == 3; }));
    EXPECT_THAT(order, ElementsAre("due since 50 ms", "due since 30 ms", "due since 10 ms"));
}

TEST_P(ManagerContractSequentialTest, FunctionThatTakesTimeDelaysThoseBehindIt)
{
    steady_clock::time_point startOfSlow;
    steady_clock::time_point startOfNext;
    std::atomic<bool> done{false};

    runInside(
        [&]
        {
            auto const slow = [&]
            {
                startOfSlow = world->now();
                world->spend(30ms);
            };
            auto const next = [&]
            {
                startOfNext = world->now();
                done = true;
            };
            keep(world->manager->add(next, dueSince(10ms)));
            keep(world->manager->add(slow, dueSince(50ms)));
        });

    EXPECT_TRUE(world->passUntil([&done] { return done.load(); }));
    EXPECT_GE(startOfNext - startOfSlow, 30ms);
}

TEST_P(ManagerContractSequentialTest, FunctionRemovedByAnEarlierOneOfItsBatchIsRefused)
{
    auto const refused = isLine(Severity::Warning, itemLogger, std::string("Execution of PCM item is forbidden"));
    log.expect(refused);
    std::atomic<int> calls{0};
    Token later;

    runInside(
        [&]
        {
            later = world->manager->add([&calls] { ++calls; }, dueSince(10ms));
            keep(world->manager->add([&later] { later.reset(); }, dueSince(50ms)));
        });

    EXPECT_TRUE(world->passUntil([&] { return log.count(refused) > 0; }));
    world->awaitRest();
    EXPECT_EQ(log.count(refused), 1);
    EXPECT_EQ(calls, 0);
}

}

}
