#include <utils/CodeMonitor.h>

#include "misc/Crossing.h"
#include "support/WaitFor.h"

#include <gmock/gmock.h>

#include <atomic>
#include <chrono>
#include <stdexcept>
#include <thread>
#include <type_traits>

namespace Halden::Tavro::Utils
{

namespace
{

using testing::StrEq;
using testing::ThrowsMessage;
using namespace TestSupport;
using namespace std::chrono_literals;

bool crossLate(CodeMonitor& monitor);

/// Defines crossLate(): what crossBarrier() does for a thread that has found the barrier closed, however late. Only an
/// explicit instantiation may name what is private.
template <bool (CodeMonitor::*waitForRelease)()>
struct LateCrossing
{
    friend bool crossLate(CodeMonitor& monitor) { return (monitor.*waitForRelease)(); }
};

template struct LateCrossing<&CodeMonitor::waitForRelease>;

class CodeMonitorTest : public testing::Test
{
protected:
    bool waitUntilTrapped()
    {
        return waitFor([this] { return sut.trappedAtBarrier(); });
    }

    CodeMonitor sut{"sut"};
};

TEST_F(CodeMonitorTest, IsNeitherPolymorphicNorCopyable)
{
    EXPECT_FALSE(std::is_polymorphic_v<CodeMonitor>);
    EXPECT_FALSE(std::is_copy_constructible_v<CodeMonitor>);
    EXPECT_FALSE(std::is_copy_assignable_v<CodeMonitor>);
}

TEST_F(CodeMonitorTest, EmptyNameThrows)
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

TEST_F(CodeMonitorTest, ClosedBarrierHoldsTheCrossingThreadUntilItIsOpened)
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

TEST_F(CodeMonitorTest, ClosingForgetsAThreadThatWasHeldUpUntilTheBarrierHadBeenOpened)
{
    sut.closeBarrier();
    sut.openBarrier();
    EXPECT_TRUE(crossLate(sut));

    sut.closeBarrier();

    EXPECT_FALSE(sut.trappedAtBarrier());
    EXPECT_FALSE(sut.openBarrier());
}

TEST_F(CodeMonitorTest, OpeningAnOpenBarrierThrows)
{
    auto const open = [this] { sut.openBarrier(); };
    EXPECT_THAT(open, ThrowsMessage<std::runtime_error>(StrEq("Barrier is not closed")));

    sut.closeBarrier();
    sut.openBarrier();
    EXPECT_THAT(open, ThrowsMessage<std::runtime_error>(StrEq("Barrier is not closed")));
}

TEST_F(CodeMonitorTest, ArgumentIsFoundUnderItsName)
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

TEST_F(CodeMonitorTest, SecondValueUnderANameReplacesTheFirstAndItsType)
{
    int object = 0;
    sut.setArgument("value", 1ULL);
    sut.setArgument("value", &object);

    EXPECT_EQ(sut.getArgument("value").type, RuntimeTypedData::Type::Pointer);
    EXPECT_EQ(sut.getArgument("value").value.pointer, &object);
}

TEST_F(CodeMonitorTest, NullPointerIsAPointer)
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

TEST_F(CodeMonitorTest, UnknownArgumentThrowsAndIsNotInserted)
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

TEST_F(CodeMonitorTest, HoldsAndReleasesAThreadOverAndOver)
{
    constexpr unsigned most = 10'000;
    auto const end = std::chrono::steady_clock::now() + 3s;
    auto const spinUntil = [](auto const& condition)
    {
        auto const deadline = std::chrono::steady_clock::now() + 60s;
        while (!condition() && std::chrono::steady_clock::now() < deadline)
        {
            std::this_thread::yield();
        }
    };
    Rounds rounds(sut);

    unsigned round = 0;
    while (round < most && std::chrono::steady_clock::now() < end && !HasFailure())
    {
        sut.closeBarrier();
        rounds.start(++round);
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

    EXPECT_GT(round, 0U);
    EXPECT_EQ(rounds.held, round);
}

}

}
