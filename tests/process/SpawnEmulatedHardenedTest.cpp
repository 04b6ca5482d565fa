// Programs on a system that runs each child in a copy of this process, so that it hears of no failure.

#include "process/Programs.h"

#include "support/CallDouble.h"

#include <gmock/gmock.h>

#include <spawn.h>

namespace Halden::Tavro::Utils
{

using namespace TestSupport;
using testing::Optional;

namespace
{

CallDouble<int(pid_t*, char const*, posix_spawn_file_actions_t const*, posix_spawnattr_t const*, char* const*,
               char* const*)>
    spawnDouble{"posix_spawn"};

}

extern "C" int posix_spawn(pid_t* child, char const* path, posix_spawn_file_actions_t const* actions,
                           posix_spawnattr_t const* attributes, char* const* arguments, char* const* environment)
{
    return spawnDouble(child, path, actions, attributes, arguments, environment);
}

namespace
{

TEST(SpawnEmulatedHardenedTest, ProgramsAreForkedOnceASpawnHasNotToldItsFailure)
{
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

    EXPECT_THAT(run("/no/such/program").exitCode, Optional(-1));
    EXPECT_THAT(shell("exit 3").exitCode, Optional(3));

    EXPECT_EQ(spawnDouble.count(), 1U);
    EXPECT_FALSE(hasChildren());
}

}

}
