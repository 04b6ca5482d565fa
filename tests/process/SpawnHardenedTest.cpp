// Programs that the hardened build starts without a copy of this process: nothing else may be different.

#include "process/ExecuteFailingCallFixture.h"
#include "process/Programs.h"
#include "support/CallDouble.h"

#include <malloc.h>
#include <signal.h>
#include <spawn.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

namespace Halden::Tavro::Utils
{

namespace
{

TestSupport::CallDouble<int(posix_spawn_file_actions_t*)> initActionsDouble{"posix_spawn_file_actions_init"};
TestSupport::CallDouble<int(posix_spawn_file_actions_t*, int, int)> addDup2Double{"posix_spawn_file_actions_adddup2"};
TestSupport::CallDouble<int(posix_spawn_file_actions_t*)> destroyActionsDouble{"posix_spawn_file_actions_destroy"};

}

extern "C" int posix_spawn_file_actions_init(posix_spawn_file_actions_t* actions) noexcept
{
    return initActionsDouble(actions);
}

extern "C" int posix_spawn_file_actions_adddup2(posix_spawn_file_actions_t* actions, int from, int to) noexcept
{
    return addDup2Double(actions, from, to);
}

extern "C" int posix_spawn_file_actions_destroy(posix_spawn_file_actions_t* actions) noexcept
{
    return destroyActionsDouble(actions);
}

namespace
{

using namespace TestSupport;
using Log::Severity;
using testing::IsEmpty;
using testing::Optional;

class SpawnHardenedTest : public ExecuteFailingCallFixture
{
protected:
    SpawnHardenedTest() { spawn(); }

    void SetUp() override
    {
        if (runsChildrenInCopies())
        {
            GTEST_SKIP() << "the system runs each child in a copy of this process";
        }
    }

    static void spawn() { Log::LoggerProxy::instance().setThreshold(Severity::Debug); }

    /// As it is where the child has lines to log.
    static void fork() { Log::LoggerProxy::instance().setThreshold(Severity::Trace); }

    /// The output of a program that is started in either way.
    void expectTheSame(std::string const& program, std::vector<std::string> const& arguments,
                       Environment const& environment = {})
    {
        std::istringstream const input;
        forkDouble.reset();
        spawn();
        auto const spawned = execute(program, arguments, environment, input, longEnough);
        EXPECT_EQ(forkDouble.count(), 0U);
        fork();
        auto const forked = execute(program, arguments, environment, input, longEnough);
        EXPECT_EQ(forkDouble.count(), 1U);

        EXPECT_EQ(spawned.output, forked.output);
        EXPECT_NE(spawned.output, "");
        EXPECT_EQ(spawned.exitCode, forked.exitCode);
    }
};

TEST_F(SpawnHardenedTest, EnvironmentIsThatOfAForkedProgram)
{
    ASSERT_EQ(setenv("HALDEN_CHANGED", "before", 1), 0);
    ASSERT_EQ(setenv("HALDEN_CHANGED_NOT", "kept", 1), 0);

    expectTheSame("/usr/bin/env", {"-0"},
                  {{"HALDEN_CHANGED", "after"},
                   {"HALDEN_NEW", "first"},
                   {"HALDEN_NEW", "a value longer than any short string, = and\nall"},
                   {"HALDEN_EMPTY", ""},
                   {"", "no name"},
                   {"HALDEN=NAME", "no name either"},
                   {std::string("HALDEN_NUL\0x", 12), std::string("cut\0off", 7)}});

    EXPECT_STREQ(std::getenv("HALDEN_CHANGED"), "before");
    EXPECT_EQ(std::getenv("HALDEN_NEW"), nullptr);
}

TEST_F(SpawnHardenedTest, EnvironmentMayBeEmpty)
{
    char** const before = environ;
    environ = nullptr;

    expectTheSame("/usr/bin/env", {}, {{"HALDEN_ONLY", "one"}});

    environ = before;
}

TEST_F(SpawnHardenedTest, EnvironmentOfManyVariablesIsThatOfAForkedProgram)
{
    Environment environment;
    for (int i = 0; i < 200; ++i)
    {
        environment.emplace_back("HALDEN_" + std::to_string(i), "value");
    }
    mallopt(M_PERTURB, 0x55); // so that no memory is zero by chance, where the end of the variables is missing

    expectTheSame("/usr/bin/env", {}, environment);

    mallopt(M_PERTURB, 0);
}

TEST_F(SpawnHardenedTest, DescriptorsAreThoseOfAForkedProgram)
{
    expectTheSame("/bin/ls", {"/proc/self/fd"});
}

TEST_F(SpawnHardenedTest, ArgumentsAreThoseOfAForkedProgram)
{
    expectTheSame("/bin/sh", {"-c", "printf '[%s]' \"$0\" \"$@\"", "zero", "", "a b", "*"});
}

TEST_F(SpawnHardenedTest, BlockedAndIgnoredSignalsAreThoseOfAForkedProgram)
{
    sigset_t usr1;
    sigemptyset(&usr1);
    sigaddset(&usr1, SIGUSR1);
    pthread_sigmask(SIG_BLOCK, &usr1, nullptr);
    auto const before = signal(SIGUSR2, SIG_IGN);

    expectTheSame("/bin/grep", {"SigBlk", "/proc/self/status"});
    // Without the two signals that the C library keeps for itself.
    expectTheSame("/bin/sed", {"-n", "s/^SigIgn:.*\\(.......\\)$/\\1/p", "/proc/self/status"});

    signal(SIGUSR2, before);
    pthread_sigmask(SIG_UNBLOCK, &usr1, nullptr);
}

TEST_F(SpawnHardenedTest, ProgramThatCannotBeStartedIsForkedToSayWhy)
{
    for (std::string const path : {"/no/such/program", "/etc/passwd", "/"})
    {
        forkDouble.reset();

        auto const result = run(path);

        EXPECT_THAT(result.exitCode, Optional(-1)) << path;
        EXPECT_EQ(result.output, "") << path;
        EXPECT_EQ(forkDouble.count(), 1U) << path;
    }
    EXPECT_FALSE(hasChildren());
}

TEST_F(SpawnHardenedTest, ProgramIsForkedWhereThereIsNoMemoryToSayWhatBecomesOfThePipes)
{
    for (std::size_t const call : {1U, 2U})
    {
        addDup2Double.reset();
        addDup2Double.failCall(call, ENOMEM, 0);
        forkDouble.reset();

        EXPECT_EQ(shell("echo text").output, "text\n");
        EXPECT_EQ(forkDouble.count(), 1U);
    }
}

TEST_F(SpawnHardenedTest, WhatIsSaidAboutThePipesIsGivenBack)
{
    initActionsDouble.reset();
    destroyActionsDouble.reset();

    run("/bin/true");

    EXPECT_EQ(initActionsDouble.count(), 1U);
    EXPECT_EQ(destroyActionsDouble.calls(), initActionsDouble.calls());
}

TEST_F(SpawnHardenedTest, StartThatFailsLeavesNothing)
{
    auto const copyTextSpawned = []
    {
        spawn();
        copyText();
    };
    addDup2Double.reset();
    auto const failures = {callsOf("posix_spawn_file_actions_adddup2", addDup2Double, ENOMEM, 0),
                           callsOf("posix_spawn", posixSpawnDouble, EAGAIN, 0), allocations()};

    EXPECT_THAT(leftByFailingCalls(failures, copyTextSpawned, childLeft), IsEmpty());
}

TEST_F(SpawnHardenedTest, NoHandlerOfForksRuns)
{
    static int forks;
    forks = 0;
    ASSERT_EQ(pthread_atfork([] { ++forks; }, nullptr, nullptr), 0);

    run("/bin/true");
    EXPECT_EQ(forks, 0);

    fork();
    run("/bin/true");
    EXPECT_EQ(forks, 1);
}

}

}
