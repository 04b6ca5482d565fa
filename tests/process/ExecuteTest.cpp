// What execute() does around the fork, with the system answering as each test wants.

#include "process/ExecuteAppFixture.h"

#include <fcntl.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

namespace Halden::Tavro::Utils
{

namespace
{

using namespace TestSupport;
using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::StrEq;
using testing::ThrowsMessage;

static_assert(std::is_same_v<decltype(ExecutionResult::termSignal), std::optional<std::int8_t>>);
static_assert(std::is_same_v<decltype(ExecutionResult::exitCode), std::optional<std::int8_t>>);
static_assert(std::is_same_v<Environment, std::vector<std::pair<std::string, std::string>>>);

class ExecuteTest : public ForkFixture
{
};

TEST_F(ExecuteTest, ChildClosesEachNumberOnce)
{
    tellOnly(true);

    call({"one", "", "a b"}, {{"A", "1"}});

    EXPECT_THAT(events.list(),
                ElementsAre("pipe2 stdout.read stdout.write", "pipe2 stdin.read stdin.write", "fork",
                            "log 5 executeApp()", "dup2 stdin.read 0", "dup2 stdout.write 1", "close stdin.read",
                            "close stdin.write", "close stdout.read", "close stdout.write", "setenv A=1 1",
                            "execv /program '/program' 'one' '' 'a b'",
                            "log 1 execve() failed with No such file or directory"));
}

TEST_F(ExecuteTest, ProgramThatCannotBeStartedIsNoException)
{
    auto const result = call();

    EXPECT_EQ(result.exitCode, -1);
    EXPECT_FALSE(result.termSignal.has_value());
    EXPECT_EQ(result.output, "");
}

TEST_F(ExecuteTest, ArgumentVectorPointsIntoTheCallersStrings)
{
    std::string const path("/program");
    std::vector<std::string> const arguments{"a", "a long argument that no short string holds"};
    execvDouble.replace(
        [&](char const* given, char* const* vector)
        {
            bool const same = given == path.c_str() && vector[0] == path.c_str() && vector[1] == arguments[0].c_str() &&
                              vector[2] == arguments[1].c_str() && vector[3] == nullptr;
            return same ? 1 : 2;
        });
    std::istringstream const input;

    EXPECT_EQ(execute(path, arguments, {}, input, 1h).exitCode, 1);
}

TEST_F(ExecuteTest, PipesOfExecuteAreCloseOnExecFromTheStart)
{
    call();

    ASSERT_GE(pipe2Double.count(), 2U);
    EXPECT_EQ(std::get<1>(pipe2Double.calls()[0]), O_CLOEXEC);
    EXPECT_EQ(std::get<1>(pipe2Double.calls()[1]), O_CLOEXEC);
}

TEST_F(ExecuteTest, FailedForkThrowsLogsNothingAndClosesEachNumberOnce)
{
    forkDouble.failCall(1, -1, EAGAIN);

    EXPECT_THAT([this] { call(); },
                ThrowsMessage<std::runtime_error>(StrEq("Failed to fork to execute the other process")));

    EXPECT_THAT(events.list(),
                ElementsAre("log 5 execute()", "pipe2 stdout.read stdout.write", "pipe2 stdin.read stdin.write",
                            "close stdin.read", "close stdin.write", "close stdout.read", "close stdout.write"));
}

TEST_F(ExecuteTest, FailedFirstPipeThrowsBeforeAnyFork)
{
    pipe2Double.failCall(1, -1, EMFILE);

    EXPECT_THAT([this] { call(); }, ThrowsMessage<std::runtime_error>(StrEq("Failed to create pipe")));

    EXPECT_THAT(events.list(), ElementsAre("log 5 execute()"));
}

TEST_F(ExecuteTest, FailedSecondPipeThrowsAndClosesTheFirst)
{
    pipe2Double.failCall(2, -1, EMFILE);

    EXPECT_THAT([this] { call(); }, ThrowsMessage<std::runtime_error>(StrEq("Failed to create pipe")));

    EXPECT_THAT(events.list(), ElementsAre("log 5 execute()", "pipe2 stdout.read stdout.write", "close stdout.read",
                                           "close stdout.write"));
}

}

}
