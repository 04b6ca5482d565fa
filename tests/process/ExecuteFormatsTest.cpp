// The formats of what process execution logs: a text without a conversion is the format itself, with no value.

#include <utils/Execute.h>

#include "process/ExecuteFixture.h"
#include "process/PipeNumbers.h"

#include <cerrno>
#include <chrono>
#include <functional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace
{

std::vector<std::string> formats;

}

namespace Halden::Tavro::Log
{

/// Stands before that of the logging library.
void tavroDoLog(Severity /*severity*/, std::string_view const& format, std::function<std::string()> const& /*unused*/,
                ...)
{
    formats.emplace_back(format);
}

}

namespace Halden::Tavro::Utils
{

namespace
{

using namespace TestSupport;
using namespace std::chrono_literals;
using testing::ElementsAre;

constexpr pid_t child = 471'147'114; // above the largest process id of the kernel

class ExecuteFormatsTest : public ExecuteFixture
{
protected:
    ExecuteFormatsTest()
    {
        formats.clear();
        nanosleepDouble.replace([](timespec const*, timespec*) { return 0; });
        waitpidDouble.replace([](pid_t, int*, int) { return 0; });
    }

    void callThatThrows()
    {
        std::istringstream const input;
        EXPECT_THROW(getAppOutput(stdoutPipe, stdinPipe, child, input, 0ms), std::runtime_error);
    }

    Pipe stdoutPipe;
    Pipe stdinPipe;
};

TEST_F(ExecuteFormatsTest, StdinThatCannotBeOpenedIsLoggedWithoutAValue)
{
    stdinPipe.close();

    callThatThrows();

    EXPECT_THAT(formats,
                ElementsAre("getAppOutput()", "Timeout is set to %fs", "Failed to open pipe to stdin for write"));
}

TEST_F(ExecuteFormatsTest, StdoutThatCannotBeOpenedIsLoggedWithoutAValue)
{
    stdoutPipe.close();

    callThatThrows();

    EXPECT_THAT(formats,
                ElementsAre("getAppOutput()", "Timeout is set to %fs", "Failed to open pipe to stdout for read"));
}

TEST_F(ExecuteFormatsTest, StatusThatCannotBeHadIsLoggedWithoutAValue)
{
    waitpidDouble.failCall(1, -1, ECHILD);

    callThatThrows();

    EXPECT_THAT(formats,
                ElementsAre("getAppOutput()", "Timeout is set to %fs", "Failed to get status of child process"));
}

TEST_F(ExecuteFormatsTest, ForbiddenKillIsLoggedWithValuesAndThenWithoutOne)
{
    killDouble.failCall(1, -1, EPERM);

    callThatThrows();

    EXPECT_THAT(formats, ElementsAre("getAppOutput()", "Timeout is set to %fs", "Send kill signal to child process %d",
                                     "kill(%d, SIGKILL) failed with %d errno = %d (%s)",
                                     "Parent has no permission to kill child process"));
}

}

}
