#include <utils/CodeMonitor.h>

#include "support/CallDouble.h"
#include "support/WaitFor.h"

#include <gmock/gmock.h>

#include <time.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <ctime>
#include <future>
#include <limits>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

using namespace Halden::Tavro::TestSupport;
using namespace Halden::Tavro::Utils;
using namespace std::chrono_literals;
using namespace testing;

namespace
{

CallDouble<int(timespec const*, timespec*)> nanoSleep{"nanosleep"};

}

extern "C" int nanosleep(timespec const* requested, timespec* remaining)
{
    return nanoSleep(requested, remaining);
}

namespace
{

std::chrono::nanoseconds toDuration(timespec const& time)
{
    return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
}

/// A thread that crosses the barrier once.
class Crossing
{
public:
    explicit Crossing(CodeMonitor& monitor)
        : result(std::async(std::launch::async, [&monitor] { return monitor.crossBarrier(); }))
    {
    }

    bool isOver() { return result.wait_for(0s) == std::future_status::ready; }

    /// @return what crossBarrier() returned; throws when it does not return
    bool wait()
    {
        if (result.wait_for(30s) != std::future_status::ready)
        {
            throw std::runtime_error("still held");
        }
        return result.get();
    }

private:
    std::future<bool> result;
};

class CodeMonitorTest : public Test
{
protected:
    CodeMonitorTest() { nanoSleep.reset(); }

    ~CodeMonitorTest() override { nanoSleep.reset(); }

    /// No sleep takes any time, and each is noted.
    void recordSleeps()
    {
        nanoSleep.replace(
            [this](timespec const* requested, timespec*)
            {
                sleeps.push_back(toDuration(*requested));
                return 0;
            });
    }

    bool waitUntilTrapped()
    {
        return waitFor([this] { return sut.trappedAtBarrier(); });
    }

    /// As waitUntilTrapped(), for what stands in for a sleep.
    bool waitWithoutSleep()
    {
        auto const deadline = std::chrono::steady_clock::now() + 10s;
        while (!sut.trappedAtBarrier() && std::chrono::steady_clock::now() < deadline)
        {
            std::this_thread::yield();
        }
        return sut.trappedAtBarrier();
    }

    CodeMonitor sut{"sut"};
    std::vector<std::chrono::nanoseconds> sleeps;
};

TEST(RuntimeTypedDataTest, IsEmptyAtFirst)
{
    RuntimeTypedData const data;

    EXPECT_EQ(data.type, RuntimeTypedData::Type::None);
    EXPECT_EQ(data.value.uint64, 0U);
}

TEST(RuntimeTypedDataTest, TheTypesHaveTheirNumbers)
{
    EXPECT_EQ(static_cast<std::uint32_t>(RuntimeTypedData::Type::None), 0U);
    EXPECT_EQ(static_cast<std::uint32_t>(RuntimeTypedData::Type::Uint64), 1U);
    EXPECT_EQ(static_cast<std::uint32_t>(RuntimeTypedData::Type::Pointer), 2U);
    EXPECT_TRUE((std::is_same_v<std::underlying_type_t<RuntimeTypedData::Type>, std::uint32_t>));
    EXPECT_EQ(sizeof(RuntimeTypedData::Value), 8U);
}

TEST(RuntimeTypedDataTest, AssignmentCopiesValueAndType)
{
    RuntimeTypedData const source{{7}, RuntimeTypedData::Type::Uint64};
    RuntimeTypedData target;

    target = source;

    EXPECT_EQ(target.type, RuntimeTypedData::Type::Uint64);
    EXPECT_EQ(target.value.uint64, 7U);
}

TEST_F(CodeMonitorTest, IsNeitherPolymorphicNorCopyable)
{
    EXPECT_FALSE(std::is_polymorphic_v<CodeMonitor>);
    EXPECT_FALSE(std::is_copy_constructible_v<CodeMonitor>);
    EXPECT_FALSE(std::is_copy_assignable_v<CodeMonitor>);
}

TEST_F(CodeMonitorTest, AnEmptyNameThrows)
{
    EXPECT_THAT([] { CodeMonitor monitor(""); }, ThrowsMessage<std::invalid_argument>(StrEq("Name can't be empty")));
}

TEST_F(CodeMonitorTest, CrossingTheOpenBarrierReturnsFalseAndTrapsNobody)
{
    EXPECT_FALSE(sut.crossBarrier());

    EXPECT_FALSE(sut.trappedAtBarrier());
    EXPECT_FALSE(sut.waitTrapped(0ms));
}

TEST_F(CodeMonitorTest, CrossingAReopenedBarrierReturnsFalse)
{
    sut.closeBarrier();
    sut.openBarrier();

    EXPECT_FALSE(sut.crossBarrier());
}

TEST_F(CodeMonitorTest, AClosedBarrierHoldsTheCrossingThreadUntilItIsOpened)
{
    sut.closeBarrier();
    EXPECT_FALSE(sut.trappedAtBarrier());
    Crossing crossing(sut);

    EXPECT_TRUE(waitUntilTrapped());
    EXPECT_FALSE(crossing.isOver());

    EXPECT_TRUE(sut.openBarrier());
    EXPECT_TRUE(crossing.wait());
    EXPECT_FALSE(sut.trappedAtBarrier());
}

TEST_F(CodeMonitorTest, OpeningABarrierThatNobodyReachedReturnsFalse)
{
    sut.closeBarrier();

    EXPECT_FALSE(sut.openBarrier());
}

TEST_F(CodeMonitorTest, OpeningReleasesEveryThread)
{
    sut.closeBarrier();
    Crossing first(sut);
    Crossing second(sut);
    EXPECT_TRUE(waitUntilTrapped());

    sut.openBarrier();

    first.wait();
    second.wait();
}

TEST_F(CodeMonitorTest, ClosingTwiceThrowsAndChangesNothing)
{
    sut.closeBarrier();
    sut.setArgument("value", 5ULL);
    Crossing crossing(sut);
    ASSERT_TRUE(waitUntilTrapped());

    EXPECT_THAT([this] { sut.closeBarrier(); }, ThrowsMessage<std::runtime_error>(StrEq("Barrier already closed")));

    EXPECT_TRUE(sut.trappedAtBarrier());
    EXPECT_EQ(sut.getArgument("value").value.uint64, 5U);
    EXPECT_TRUE(sut.openBarrier());
    EXPECT_TRUE(crossing.wait());
}

TEST_F(CodeMonitorTest, OpeningAnOpenBarrierThrows)
{
    auto const open = [this] { sut.openBarrier(); };
    EXPECT_THAT(open, ThrowsMessage<std::runtime_error>(StrEq("Barrier is not closed")));

    sut.closeBarrier();
    sut.openBarrier();
    EXPECT_THAT(open, ThrowsMessage<std::runtime_error>(StrEq("Barrier is not closed")));
}

TEST_F(CodeMonitorTest, WaitTrappedReturnsAtOnceWhenAThreadIsTrapped)
{
    sut.closeBarrier();
    Crossing crossing(sut);
    ASSERT_TRUE(waitUntilTrapped());
    recordSleeps();

    EXPECT_TRUE(sut.waitTrapped(1000ms));
    EXPECT_TRUE(sut.waitTrapped(0ms));

    EXPECT_THAT(sleeps, IsEmpty());
    sut.openBarrier();
    EXPECT_TRUE(crossing.wait());
}

TEST_F(CodeMonitorTest, WaitTrappedNoticesTheCrossingWithTheNextLook)
{
    sut.closeBarrier();
    std::optional<Crossing> crossing;
    nanoSleep.replace(
        [&](timespec const* requested, timespec*)
        {
            sleeps.push_back(toDuration(*requested));
            if (sleeps.size() == 3)
            {
                crossing.emplace(sut);
                EXPECT_TRUE(waitWithoutSleep());
            }
            return 0;
        });

    EXPECT_TRUE(sut.waitTrapped(1000ms));

    EXPECT_THAT(sleeps, ElementsAre(20ms, 20ms, 20ms));
    sut.openBarrier();
    EXPECT_TRUE(crossing->wait());
}

TEST_F(CodeMonitorTest, WaitTrappedSleepsFiftySlicesInVain)
{
    recordSleeps();

    EXPECT_FALSE(sut.waitTrapped(1000ms));

    EXPECT_THAT(sleeps, AllOf(SizeIs(50), Each(Eq(20ms))));
}

TEST_F(CodeMonitorTest, WaitTrappedTruncatesTheSliceToWholeMilliseconds)
{
    recordSleeps();

    sut.waitTrapped(50ms);
    EXPECT_THAT(sleeps, AllOf(SizeIs(50), Each(Eq(1ms))));

    sleeps.clear();
    sut.waitTrapped(149ms);
    EXPECT_THAT(sleeps, AllOf(SizeIs(50), Each(Eq(2ms))));
}

TEST_F(CodeMonitorTest, WaitTrappedSleepsSlicesOfMoreThanASecond)
{
    recordSleeps();

    EXPECT_FALSE(sut.waitTrapped(75500ms));

    EXPECT_THAT(sleeps, AllOf(SizeIs(50), Each(Eq(1510ms))));
}

TEST_F(CodeMonitorTest, WaitTrappedBelow50MillisecondsDoesNotSleep)
{
    recordSleeps();

    EXPECT_FALSE(sut.waitTrapped(49ms));
    EXPECT_FALSE(sut.waitTrapped(10ms));
    EXPECT_FALSE(sut.waitTrapped(0ms));
    EXPECT_FALSE(sut.waitTrapped(-1000ms));

    EXPECT_THAT(sleeps, IsEmpty());
}

TEST_F(CodeMonitorTest, WaitTrappedDoesNotLookAfterTheLastSlice)
{
    sut.closeBarrier();
    std::optional<Crossing> crossing;
    nanoSleep.replace(
        [&](timespec const* requested, timespec*)
        {
            sleeps.push_back(toDuration(*requested));
            if (sleeps.size() == 50)
            {
                crossing.emplace(sut);
                EXPECT_TRUE(waitWithoutSleep());
            }
            return 0;
        });

    EXPECT_FALSE(sut.waitTrapped(1000ms));

    EXPECT_TRUE(sut.trappedAtBarrier());
    EXPECT_THAT(sleeps, SizeIs(50));
    sut.openBarrier();
    EXPECT_TRUE(crossing->wait());
}

TEST_F(CodeMonitorTest, WaitTrappedResumesAnInterruptedSliceWithTheRemainingTime)
{
    nanoSleep.replace(
        [this](timespec const* requested, timespec* remaining)
        {
            sleeps.push_back(toDuration(*requested));
            if (sleeps.size() == 1 || sleeps.size() == 2)
            {
                *remaining = {0, sleeps.size() == 1 ? 7'000'000 : 3'000'000};
                errno = EINTR;
                return -1;
            }
            return 0;
        });

    EXPECT_FALSE(sut.waitTrapped(500ms));

    ASSERT_THAT(sleeps, SizeIs(50 + 2));
    EXPECT_EQ(sleeps[0], 10ms);
    EXPECT_EQ(sleeps[1], 7ms);
    EXPECT_EQ(sleeps[2], 3ms);
    EXPECT_THAT(std::vector(sleeps.begin() + 3, sleeps.end()), Each(Eq(10ms)));
}

TEST_F(CodeMonitorTest, WaitTrappedDoesNotResumeASliceThatFailsOtherwise)
{
    nanoSleep.replace(
        [](timespec const*, timespec*)
        {
            errno = EINVAL;
            return -1;
        });

    EXPECT_FALSE(sut.waitTrapped(500ms));

    EXPECT_EQ(nanoSleep.count(), 50U);
}

TEST_F(CodeMonitorTest, WaitTrappedAcceptsTheGreatestTimeOut)
{
    std::vector<timespec> requests; // beyond what nanoseconds can count
    nanoSleep.replace(
        [&requests](timespec const* requested, timespec*)
        {
            requests.push_back(*requested);
            return 0;
        });

    EXPECT_FALSE(sut.waitTrapped(std::chrono::milliseconds::max()));

    ASSERT_THAT(requests, SizeIs(50));
    auto const seconds =
        std::chrono::duration_cast<std::chrono::seconds>(std::chrono::milliseconds::max() / 50).count();
    EXPECT_EQ(requests[0].tv_sec, std::min<std::int64_t>(seconds, std::numeric_limits<std::time_t>::max()));
}

TEST_F(CodeMonitorTest, WaitTrappedTakesItsTime)
{
    auto const start = std::chrono::steady_clock::now();

    EXPECT_FALSE(sut.waitTrapped(100ms));

    EXPECT_GE(std::chrono::steady_clock::now() - start, 100ms);
}

TEST_F(CodeMonitorTest, AnArgumentIsFoundUnderItsName)
{
    int object = 0;
    sut.setArgument("number", 18446744073709551615ULL);
    sut.setArgument("pointer", &object);
    sut.setArgument("data", RuntimeTypedData{{9}, RuntimeTypedData::Type::Uint64});

    EXPECT_EQ(sut.getArgument("number").type, RuntimeTypedData::Type::Uint64);
    EXPECT_EQ(sut.getArgument("number").value.uint64, 18446744073709551615ULL);
    EXPECT_EQ(sut.getArgument("pointer").type, RuntimeTypedData::Type::Pointer);
    EXPECT_EQ(sut.getArgument("pointer").value.pointer, &object);
    EXPECT_EQ(sut.getArgument("data").type, RuntimeTypedData::Type::Uint64);
    EXPECT_EQ(sut.getArgument("data").value.uint64, 9U);
}

TEST_F(CodeMonitorTest, ASecondValueUnderANameReplacesTheFirstAndItsType)
{
    int object = 0;
    sut.setArgument("value", 1ULL);
    sut.setArgument("value", &object);

    EXPECT_EQ(sut.getArgument("value").type, RuntimeTypedData::Type::Pointer);
    EXPECT_EQ(sut.getArgument("value").value.pointer, &object);
}

TEST_F(CodeMonitorTest, ANullPointerIsAPointer)
{
    sut.setArgument("value", nullptr);

    EXPECT_EQ(sut.getArgument("value").type, RuntimeTypedData::Type::Pointer);
    EXPECT_EQ(sut.getArgument("value").value.pointer, nullptr);
}

TEST_F(CodeMonitorTest, GetArgumentGivesTheStoredValueItself)
{
    sut.setArgument("value", 1ULL);
    auto& value = sut.getArgument("value");

    sut.setArgument("value", 2ULL);
    EXPECT_EQ(value.value.uint64, 2U);

    value.value.uint64 = 3;
    EXPECT_EQ(sut.getArgument("value").value.uint64, 3U);
}

TEST_F(CodeMonitorTest, AnUnknownArgumentThrowsAndIsNotInserted)
{
    auto const get = [this] { sut.getArgument("speed"); };

    EXPECT_THAT(get, ThrowsMessage<std::out_of_range>(StrEq("No argument with name 'speed'")));
    EXPECT_THAT(get, ThrowsMessage<std::out_of_range>(StrEq("No argument with name 'speed'")));
}

TEST_F(CodeMonitorTest, ClosingForgetsAllArguments)
{
    sut.setArgument("a", 1ULL);
    sut.setArgument("b", 2ULL);

    sut.closeBarrier();

    EXPECT_THROW(sut.getArgument("a"), std::out_of_range);
    EXPECT_THROW(sut.getArgument("b"), std::out_of_range);
    sut.openBarrier();
}

TEST_F(CodeMonitorTest, ArgumentsStayReadableAfterOpening)
{
    sut.closeBarrier();
    sut.setArgument("a", 1ULL);

    sut.openBarrier();

    EXPECT_EQ(sut.getArgument("a").value.uint64, 1U);
}

/// A monitored thread that works round by round, each when the controller says so.
class Rounds
{
public:
    explicit Rounds(CodeMonitor& monitor)
        : thread([this, &monitor] { run(monitor); })
    {
    }

    ~Rounds()
    {
        abandoned = true;
        thread.join();
    }

    /// Lets the thread begin the round.
    void start(unsigned round) { started = round; }

    bool hasEnded(unsigned round) const { return ended == round; }

    std::atomic<unsigned> held{0}; ///< how often crossBarrier() has returned true

private:
    void run(CodeMonitor& monitor)
    {
        for (unsigned round = 1; !abandoned; std::this_thread::yield())
        {
            if (started != round)
            {
                continue;
            }
            monitor.setArgument("round", static_cast<unsigned long long>(round));
            monitor.setArgument("held", &held);
            held += monitor.crossBarrier() ? 1U : 0U;
            ended = round++;
        }
    }

    std::atomic<unsigned> started{0};
    std::atomic<unsigned> ended{0};
    std::atomic<bool> abandoned{false};
    std::thread thread;
};

TEST_F(CodeMonitorTest, HoldsAndReleasesAThreadTenThousandTimes)
{
    constexpr unsigned count = 10'000;
    auto const deadline = std::chrono::steady_clock::now() + 90s;
    auto const spinUntil = [deadline](auto const& condition)
    {
        while (!condition() && std::chrono::steady_clock::now() < deadline)
        {
            std::this_thread::yield();
        }
    };
    Rounds rounds(sut);

    for (unsigned round = 1; round <= count && !HasFailure(); ++round)
    {
        sut.closeBarrier();
        rounds.start(round);
        spinUntil([this] { return sut.waitTrapped(0ms); });
        if (sut.trappedAtBarrier())
        {
            EXPECT_EQ(sut.getArgument("round").value.uint64, round);
            EXPECT_EQ(sut.getArgument("held").value.pointer, &rounds.held);
            EXPECT_EQ(rounds.held, round - 1);
        }
        EXPECT_TRUE(sut.openBarrier()) << "not trapped in round " << round;
        spinUntil([&] { return rounds.hasEnded(round); });
        EXPECT_TRUE(rounds.hasEnded(round)) << "stuck in round " << round;
    }

    EXPECT_EQ(rounds.held, count);
}

}
