// Programs on a system that runs each child in a copy of this process, so that it hears of no failure.

#include "process/Programs.h"

#include "support/CallDouble.h"
#include "support/ChildProcess.h"

#include <gmock/gmock.h>

#include <spawn.h>
#include <sys/wait.h>

#include <cerrno>
#include <functional>
#include <tuple>

namespace Halden::Tavro::Utils
{

using namespace TestSupport;
using testing::Optional;

namespace
{

CallDouble<int(pid_t*, char const*, posix_spawn_file_actions_t const*, posix_spawnattr_t const*, char* const*,
               char* const*)>
    spawnDouble{"posix_spawn"};
CallDouble<pid_t(pid_t, int*, int)> waitpidDouble{"waitpid"};

}

extern "C" int posix_spawn(pid_t* child, char const* path, posix_spawn_file_actions_t const* actions,
                           posix_spawnattr_t const* attributes, char* const* arguments, char* const* environment)
{
    return spawnDouble(child, path, actions, attributes, arguments, environment);
}

extern "C" pid_t waitpid(pid_t process, int* status, int options)
{
    return waitpidDouble(process, status, options);
}

namespace
{

/// Asks in a process of its own, for the answer is remembered.
void inANewProcess(std::function<void()> const& piece)
{
    expectInChild(
        [&piece]
        {
            waitpidDouble.reset();
            spawnDouble.replace(
                [](pid_t* child, char const*, posix_spawn_file_actions_t const*, posix_spawnattr_t const*, char* const*,
                   char* const*)
                {
                    *child = fork();
                    if (*child == 0)
                    {
                        _exit(127);
                    }
                    return 0;
                });
            piece();
            EXPECT_EQ(spawnDouble.count(), 1U);
        });
}

TEST(SpawnEmulatedHardenedTest, ProgramsAreForkedOnceASpawnHasNotToldItsFailure)
{
    inANewProcess(
        []
        {
            waitpidDouble.failCall(1, -1, EINTR); // while the child of that spawn is reaped

            EXPECT_THAT(run("/no/such/program").exitCode, Optional(-1));
            EXPECT_THAT(shell("exit 3").exitCode, Optional(3));

            EXPECT_EQ(std::get<2>(waitpidDouble.calls().at(1)), 0); // waits for its end
            EXPECT_FALSE(hasChildren());
        });
}

TEST(SpawnEmulatedHardenedTest, ChildOfThatSpawnMayHaveBeenReapedBySomebodyElse)
{
    inANewProcess(
        []
        {
            waitpidDouble.failCall(1, -1, ECHILD);

            EXPECT_THAT(run("/no/such/program").exitCode, Optional(-1));
            EXPECT_THAT(shell("exit 3").exitCode, Optional(3));
        });
}

}

}
