// What is allocated between fork and execv.

#include <utils/Execute.h>

#include "support/CallDouble.h"
#include "support/LogCapture.h"
#include "support/Resources.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <sstream>
#include <string>

namespace Halden::Tavro::Utils
{

namespace
{

using namespace std::chrono_literals;

std::size_t allocationsAtFork = 0;

}

extern "C"
{

    pid_t fork() noexcept
    {
        pid_t const result = TestSupport::systemFunction<pid_t (*)()>("fork")();
        allocationsAtFork = TestSupport::heapAllocations();
        return result;
    }

    int execv(char const* /*path*/, char* const* /*arguments*/) noexcept
    {
        _exit(TestSupport::heapAllocations() == allocationsAtFork ? 1 : 2);
    }
}

namespace
{

/// @return 1 when nothing was allocated, else 2
std::optional<std::int8_t> codeOfChild()
{
    std::istringstream const input;
    return execute("/no/such/program", {"an argument longer than any short string"},
                   {{"HALDEN_A_NAME_LONGER_THAN_ANY_SHORT_STRING", "value"}}, input, 60s)
        .exitCode;
}

TEST(ExecuteAllocationTest, NothingIsAllocatedBetweenForkAndExecv)
{
    EXPECT_EQ(codeOfChild(), 1);
}

TEST(ExecuteAllocationTest, LogCallsAllocateWhenTheyAreEnabled)
{
    TestSupport::LogCapture const log(Log::Severity::Trace);

    EXPECT_EQ(codeOfChild(), 2);
}

}

}
