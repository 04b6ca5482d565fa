// What the hardened build must stand for long: by default a few seconds of it, by two environment variables any length:
//     HALDEN_SOAK_SECONDS  for each strategy's adding and removing (2)
//     HALDEN_SOAK_ROUNDS   managers made and destroyed, and first calls made (3000)

#include "scheduling/Strategies.h"
#include "support/LogCapture.h"
#include "support/WaitFor.h"

#include <utils/PeriodicCallerManager.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace Halden::Tavro::Utils
{

namespace
{

using namespace std::chrono_literals;
using namespace TestSupport;

using std::chrono::microseconds;
using std::chrono::steady_clock;

/// Far beyond what a loaded machine takes for one step.
constexpr auto limit = 60s;

int fromEnvironment(char const* name, int otherwise)
{
    char const* const text = std::getenv(name); // NOLINT(concurrency-mt-unsafe): before any thread
    return text == nullptr ? otherwise : std::stoi(text);
}

/// Busy, for a sleep is never so short. The delays of the rounds go through 0 to 40 us.
void delay(int round)
{
    auto const end = steady_clock::now() + microseconds(round % 41);
    while (steady_clock::now() < end)
    {
    }
}

class PeriodicCallerManagerSoakHardenedTest : public testing::TestWithParam<Strategy>
{
protected:
    /// A pool is a dozen threads or more, so there are fewer of them.
    static int rounds()
    {
        return fromEnvironment("HALDEN_SOAK_ROUNDS", 3000) / (GetParam() == Strategy::ThreadPool ? 20 : 1);
    }

    static std::shared_ptr<PeriodicCallerManager> make()
    {
        return std::make_shared<PeriodicCallerManager>(GetParam(), "soak");
    }

private:
    LogCapture const log{Log::Severity::Error}; // refused executions are warned of all the time
};

INSTANTIATE_TEST_SUITE_P(Both, PeriodicCallerManagerSoakHardenedTest, bothStrategies(), nameOfStrategy);

TEST_P(PeriodicCallerManagerSoakHardenedTest, FourThreadsAddAndRemoveFlatOutBesideAHundredFunctions)
{
    auto const end = steady_clock::now() + std::chrono::seconds(fromEnvironment("HALDEN_SOAK_SECONDS", 2));
    std::atomic<long> steadyCalls{0};
    std::atomic<long> changes{0};
    std::atomic<int> callsAfterRemoval{0};
    auto const sut = make();
    std::vector<Token> steady;
    for (int i = 0; i < 100; ++i)
    {
        steady.push_back(sut->add([&steadyCalls] { ++steadyCalls; }, 1ms));
    }

    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i)
    {
        threads.emplace_back(
            [&]
            {
                while (steady_clock::now() < end)
                {
                    auto const removed = std::make_shared<std::atomic<bool>>(false);
                    Token token = sut->add([&, removed] { callsAfterRemoval += *removed ? 1 : 0; }, 1ms);
                    token.reset();
                    *removed = true;
                    ++changes;
                }
            });
    }
    for (auto& thread : threads)
    {
        thread.join();
    }
    long const callsBefore = steadyCalls;

    EXPECT_TRUE(waitFor([&] { return steadyCalls >= callsBefore + 1000; }, limit)) << "the scheduler has stalled";
    EXPECT_EQ(callsAfterRemoval, 0);
    EXPECT_GT(changes, 100);
    RecordProperty("changes", std::to_string(changes));
    RecordProperty("calls", std::to_string(steadyCalls));
}

TEST_P(PeriodicCallerManagerSoakHardenedTest, ManagersAreDestroyedAfterAnyDelay)
{
    for (int round = 0; round < rounds(); ++round)
    {
        auto sut = make();
        delay(round);

        auto const begin = steady_clock::now();
        sut.reset(); // a hang never gets past it

        ASSERT_LT(steady_clock::now() - begin, limit) << "round " << round;
    }
}

TEST_P(PeriodicCallerManagerSoakHardenedTest, FirstCallsComeAfterAnyDelay)
{
    for (int round = 0; round < rounds(); ++round)
    {
        std::promise<void> called;
        std::atomic<bool> isFirst{true};
        auto const sut = make();
        delay(round);

        Token const token = sut->add(
            [&]
            {
                if (isFirst.exchange(false))
                {
                    called.set_value();
                }
            },
            1ms);

        ASSERT_TRUE(becomesReady(called.get_future(), limit)) << "round " << round;
    }
}

TEST_P(PeriodicCallerManagerSoakHardenedTest, ManagersEndInsideTheirFunctions)
{
    for (int round = 0; round < rounds(); ++round)
    {
        std::promise<Token> handed;
        std::promise<void> ended;
        auto sut = make();
        Token token = sut->add(
            [&]
            {
                Token own = handed.get_future().get();
                delay(round);
                own.reset();
                ended.set_value();
            },
            1ms);
        sut.reset();

        handed.set_value(std::move(token));

        ASSERT_TRUE(becomesReady(ended.get_future(), limit)) << "round " << round;
    }
}

}

}
