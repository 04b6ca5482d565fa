// How a child whose time is up is killed and reaped.

#include "process/GetAppOutputFixture.h"

#include <signal.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <stdexcept>
#include <string>

namespace Halden::Tavro::Utils
{

namespace
{

using namespace TestSupport;
using namespace std::chrono_literals;
using Log::Severity;
using testing::ElementsAre;
using testing::StrEq;
using testing::ThrowsMessage;

class ChildEndTest : public GetAppOutputFixture
{
};

TEST_F(ChildEndTest, ChildThatTakesTooLongIsKilledThenReaped)
{
    runsUntilKilled = true;
    answers = {{child, SIGKILL}};
    tellLogLines();

    auto const result = call(0ms);

    EXPECT_EQ(result.termSignal, SIGKILL);
    EXPECT_FALSE(result.exitCode.has_value());
    auto all = events.list();
    all.erase(all.begin(), std::find(all.begin(), all.end(), "log 4 Send kill signal to child process 471147114"));
    ASSERT_GE(all.size(), 5U);
    all.resize(5);
    EXPECT_THAT(all, ElementsAre("log 4 Send kill signal to child process 471147114", "kill 471147114 9",
                                 "log 3 kill(471147114, SIGKILL) succeeded with 0", "wait 0",
                                 "log 4 Child finished after kill"));
}

TEST_F(ChildEndTest, ChildThatEndsByItselfBeforeTheKillReportsItsExit)
{
    runsUntilKilled = true;
    answers = {{child, exited(4)}};

    auto const result = call(0ms);

    EXPECT_EQ(result.exitCode, 4);
    EXPECT_FALSE(result.termSignal.has_value());
}

TEST_F(ChildEndTest, FailedKillIsLoggedAndTheChildStillReaped)
{
    runsUntilKilled = true;
    answers = {{child, exited(3)}};
    killDouble.failCall(1, -1, ESRCH);
    auto const line = free(Severity::Error, "kill(471147114, SIGKILL) failed with -1 errno = 3 (No such process)");
    log.expect(line);

    auto const result = call(0ms);

    EXPECT_EQ(result.exitCode, 3);
    EXPECT_THAT(log.lines(), ElementsAre(free(Severity::Trace, "getAppOutput()"),
                                         free(Severity::Debug, "Timeout is set to 0.000000s"),
                                         free(Severity::Debug, "Send kill signal to child process 471147114"), line,
                                         free(Severity::Debug, "Child finished after kill")));
}

TEST_F(ChildEndTest, ForbiddenKillIsLoggedTwiceAndThrows)
{
    runsUntilKilled = true;
    killDouble.failCall(1, -1, EPERM);
    auto const first =
        free(Severity::Error, "kill(471147114, SIGKILL) failed with -1 errno = 1 (Operation not permitted)");
    auto const second = free(Severity::Error, "Parent has no permission to kill child process");
    log.expect(first);
    log.expect(second);

    EXPECT_THAT([this] { call(0ms); }, ThrowsMessage<std::runtime_error>(StrEq("Operation not permitted")));

    EXPECT_THAT(log.lines(),
                ElementsAre(free(Severity::Trace, "getAppOutput()"),
                            free(Severity::Debug, "Timeout is set to 0.000000s"),
                            free(Severity::Debug, "Send kill signal to child process 471147114"), first, second));
}

TEST_F(ChildEndTest, ReapingIsRepeatedWhileItAnswersZero)
{
    runsUntilKilled = true;
    answers = {running, running, {child, SIGKILL}};

    auto const result = call(0ms);

    EXPECT_EQ(result.termSignal, SIGKILL);
    EXPECT_EQ(eventCount("wait 0"), 3U);
}

TEST_F(ChildEndTest, FailedReapingIsLoggedAndThrowsTheReason)
{
    runsUntilKilled = true;
    answers = {{-1, ECHILD}};
    auto const line = free(Severity::Error, "Failed to get status of child process");
    log.expect(line);

    EXPECT_THAT([this] { call(0ms); }, ThrowsMessage<std::runtime_error>(StrEq("No child processes")));

    EXPECT_EQ(log.lines().back(), line);
}

}

}
