// What is allocated between fork and execv.

#include <utils/Execute.h>

#include "support/Resources.h"

#include <gtest/gtest.h>

#include <dlfcn.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <sstream>
#include <string>

using namespace Halden::Tavro;
using namespace std::chrono_literals;

namespace
{

std::size_t allocationsAtFork = 0;

}

extern "C"
{

    pid_t fork() noexcept
    {
        pid_t const result = reinterpret_cast<pid_t (*)()>(dlsym(RTLD_NEXT, "fork"))();
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

TEST(ExecuteAllocationTest, NothingIsAllocatedBetweenForkAndExecv)
{
    std::istringstream const input;

    auto const result = Utils::execute("/no/such/program", {"an argument longer than any short string"},
                                       {{"HALDEN_A_NAME_LONGER_THAN_ANY_SHORT_STRING", "value"}}, input, 60s);

    EXPECT_EQ(result.exitCode, 1);
    EXPECT_GT(TestSupport::heapAllocations(), allocationsAtFork) << "the counting does not work";
}

}
