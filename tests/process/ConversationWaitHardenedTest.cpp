// What the hardened build waits for while it talks with a child, and how long.

#include "process/GetAppOutputFixture.h"
#include "process/InputThatCalls.h"
#include "support/CallDouble.h"
#include "support/SteadyClockDouble.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstddef>
#include <cstring>
#include <functional>
#include <istream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace Halden::Tavro::Utils
{

namespace
{

TestSupport::CallDouble<int(pollfd*, nfds_t, int)> pollDouble{"poll"};

}

// The C library declares the entries as only written to.
#pragma GCC diagnostic push
#ifndef __clang__
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif
extern "C" int poll(pollfd* polled, nfds_t count, int timeout)
{
    return pollDouble(polled, count, timeout);
}
#pragma GCC diagnostic pop

namespace
{

using namespace TestSupport;
using namespace std::chrono_literals;
using Log::Severity;
using testing::Each;
using testing::ElementsAre;

constexpr std::size_t mebibyte = 1024 * 1024;

/// A child that does not exist, and waits that end at once: nothing happens, and no time passes, but what a test says.
class ConversationWaitHardenedTest : public GetAppOutputFixture
{
protected:
    ConversationWaitHardenedTest()
    {
        pollDouble.reset();
        pollDouble.replace(
            [this](pollfd* polled, nfds_t count, int timeout)
            {
                EXPECT_EQ(count, 3U);
                timeouts.push_back(timeout);
                if (timeouts.size() == 20'000)
                {
                    ADD_FAILURE() << "the call would not end";
                    clock.set(std::chrono::nanoseconds::max());
                }
                return answer({polled[0], polled[1], polled[2]});
            });
    }

    ~ConversationWaitHardenedTest() override { pollDouble.reset(); }

    /// Lets the system have a descriptor for the child's end.
    static void tellTheEnd()
    {
        pidfdOpenDouble.replace([](pid_t, unsigned) { return open("/dev/null", O_RDONLY | O_CLOEXEC); });
    }

    struct Waits
    {
        pollfd& input;
        pollfd& output;
        pollfd& end;
    };

    static constexpr std::chrono::nanoseconds start = 1000h;
    SteadyClockDouble clock{start};
    std::vector<int> timeouts;
    std::function<int(Waits)> answer{[](Waits) { return 0; }};
};

TEST_F(ConversationWaitHardenedTest, WhereNothingTellsTheEndLooksComeSoonAndThenEveryTenMilliseconds)
{
    answers.assign(5, running);

    call();

    EXPECT_THAT(timeouts, ElementsAre(2, 4, 8, 10, 10, 10));
}

struct TimeOut
{
    std::chrono::milliseconds given;
    int waited;
};

TEST_F(ConversationWaitHardenedTest, WhereTheEndIsToldOneWaitLastsUntilTheTimeIsUp)
{
    tellTheEnd();
    runsUntilKilled = true;
    rest = {child, SIGKILL};
    for (auto const& [given, waited] :
         {TimeOut{0ms, 10}, TimeOut{-1h, 10}, TimeOut{9ms, 10}, TimeOut{10ms, 20}, TimeOut{1000ms, 1010}})
    {
        Pipe out;
        Pipe in;
        std::istringstream const input;
        timeouts.clear();
        clock.set(start);
        answer = [this, waited = waited](Waits)
        {
            clock.set(timeouts.size() == 1 ? start + std::chrono::milliseconds(waited) : start + 2h);
            return 0;
        };

        auto const result = getAppOutput(out, in, child, input, given);

        EXPECT_THAT(timeouts, ElementsAre(waited));
        EXPECT_EQ(result.termSignal, SIGKILL) << given.count();
    }
}

TEST_F(ConversationWaitHardenedTest, LongestTimeoutIsWaitedForAsLongAsTheSystemCan)
{
    tellTheEnd();
    answer = [this](Waits waits)
    {
        waits.end.revents = timeouts.size() == 2 ? POLLIN : 0;
        return waits.end.revents;
    };

    auto const result = call(std::chrono::milliseconds::max());

    EXPECT_THAT(timeouts, ElementsAre(INT_MAX, INT_MAX));
    EXPECT_EQ(result.exitCode, 0);
}

TEST_F(ConversationWaitHardenedTest, NothingIsWaitedForWhenReadingTheInputHasUsedUpTheTime)
{
    tellTheEnd();
    runsUntilKilled = true;
    rest = {child, SIGKILL};
    InputThatCalls buffer([this] { clock.set(start + 1h); });
    std::istream const input(&buffer);

    getAppOutput(stdoutPipe, stdinPipe, child, input, 1s);

    EXPECT_THAT(timeouts, ElementsAre(0));
}

TEST_F(ConversationWaitHardenedTest, WaitThatFailsTellsNoEnd)
{
    tellTheEnd();
    answer = [this](Waits waits)
    {
        if (timeouts.size() == 1)
        {
            errno = ENOMEM;
            return -1;
        }
        waits.end.revents = POLLIN;
        return 1;
    };

    call();

    EXPECT_EQ(timeouts.size(), 2U);
    EXPECT_EQ(eventCount("poll"), 1U);
}

TEST_F(ConversationWaitHardenedTest, WhatIsOverIsNotWaitedForAnyMore)
{
    tellTheEnd();
    int const writer = dup(numbersOf(stdoutPipe).write);
    std::vector<std::array<bool, 3>> waited;
    answer = [&](Waits waits)
    {
        waited.push_back({waits.input.fd >= 0, waits.output.fd >= 0, waits.end.fd >= 0});
        waits.end.revents = POLLIN;
        if (waited.size() == 2)
        {
            closeDouble.passOn(writer);
        }
        return 1;
    };

    call();

    EXPECT_THAT(waited, ElementsAre(ElementsAre(false, true, true), ElementsAre(false, true, false)));
}

TEST_F(ConversationWaitHardenedTest, OutputIsReadUpToItsLimitAndThenNotWaitedFor)
{
    tellTheEnd();
    runsUntilKilled = true;
    rest = {child, SIGKILL};
    readDouble.replace(
        [](int, void* buffer, std::size_t size)
        {
            std::memset(buffer, 'x', size);
            return static_cast<ssize_t>(size);
        });
    answer = [this](Waits waits)
    {
        if (waits.output.fd < 0)
        {
            clock.set(start + 1h);
        }
        return 1;
    };

    auto const result = call(1s);

    EXPECT_EQ(result.output.size(), 64 * mebibyte);
}

TEST_F(ConversationWaitHardenedTest, ChildThatIsLeftIsKilledAndWaitedFor)
{
    runsUntilKilled = true;
    failToOpen("stdout.read");
    log.expect(free(Severity::Error, "Failed to open pipe to stdout for read"));

    EXPECT_THROW(call(), std::runtime_error);

    EXPECT_THAT(events.list(), ElementsAre("close stdin.write", "poll", "kill 471147114 9", "wait 0"));
}

}

}
