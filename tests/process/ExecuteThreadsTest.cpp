// execute() in a process with threads.

#include <log/Logger.h>
#include <utils/Execute.h>

#include "support/Resources.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <ctime>
#include <functional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace Halden::Tavro::Utils
{

namespace
{

using Log::Severity;
using namespace std::chrono_literals;

constexpr auto longEnough = 60s;

std::string outputOf(std::string const& path, std::vector<std::string> const& arguments, std::string const& text)
{
    std::istringstream const input(text);
    return execute(path, arguments, {}, input, longEnough).output;
}

/// Runs a function on each of some threads, again and again, until it is destroyed.
class Background
{
public:
    Background(int count, std::function<void()> const& function)
    {
        for (int i = 0; i < count; ++i)
        {
            threads.emplace_back(
                [this, function]
                {
                    while (!stop)
                    {
                        function();
                    }
                });
        }
    }

    ~Background()
    {
        stop = true;
        for (auto& thread : threads)
        {
            thread.join();
        }
    }

    Background(Background const&) = delete;
    Background& operator=(Background const&) = delete;

private:
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
};

/// How often eight threads run something, and for how long at most, as forks are slow under a sanitizer.
struct Runs
{
    int times;
    std::chrono::seconds limit;
};

/// Some hundred; for a soak by hand as many as the environment variable HALDEN_EXECUTE_RUNS says.
Runs soakRuns()
{
    char const* const wanted = std::getenv("HALDEN_EXECUTE_RUNS");
    return wanted == nullptr ? Runs{200, 40s} : Runs{std::stoi(wanted), 24h};
}

void runOnEightThreads(Runs runs, std::function<void()> const& function)
{
    auto const deadline = std::chrono::steady_clock::now() + runs.limit;
    std::atomic<int> left{runs.times};
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i)
    {
        threads.emplace_back(
            [&]
            {
                while (left.fetch_sub(1) > 0 && std::chrono::steady_clock::now() < deadline)
                {
                    function();
                }
            });
    }
    for (auto& thread : threads)
    {
        thread.join();
    }
}

/// Standard error to nowhere: the sink of the start writes many lines.
class SilentStderr
{
public:
    SilentStderr()
    {
        int const nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
        dup2(nowhere, STDERR_FILENO);
        close(nowhere);
    }

    ~SilentStderr()
    {
        dup2(before, STDERR_FILENO);
        close(before);
    }

    SilentStderr(SilentStderr const&) = delete;
    SilentStderr& operator=(SilentStderr const&) = delete;

private:
    int const before = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3);
};

TEST(ExecuteThreadsTest, RunsOnEightThreadsDoNotDisturbEachOtherAndLeaveNothingBehind)
{
    outputOf("/bin/cat", {}, "text");
    auto const descriptors = TestSupport::openDescriptors();
    std::atomic<int> next{0};
    std::atomic<int> wrong{0};

    runOnEightThreads(soakRuns(),
                      [&]
                      {
                          std::string const text(1'000, static_cast<char>('a' + next++ % 26));
                          wrong += outputOf("/bin/cat", {}, text) == text ? 0 : 1;
                      });

    EXPECT_EQ(wrong, 0);
    EXPECT_EQ(TestSupport::openDescriptors(), descriptors);
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
    EXPECT_EQ(errno, ECHILD);
}

TEST(ExecuteThreadsTest, DescriptorsOfOtherThreadsAreNeverClosed)
{
    std::atomic<long> opened{0};
    std::atomic<long> stolen{0};
    {
        Background const openers(4,
                                 [&]
                                 {
                                     std::array<int, 4> descriptors{}; // few, as a service may have 64 in all
                                     for (int& descriptor : descriptors)
                                     {
                                         descriptor = open("/dev/null", O_RDONLY | O_CLOEXEC);
                                         ++opened;
                                     }
                                     std::this_thread::sleep_for(1ms); // time to be robbed
                                     for (int const descriptor : descriptors)
                                     {
                                         stolen += close(descriptor) == 0 ? 0 : 1;
                                     }
                                 });

        runOnEightThreads({100, 40s}, [] { EXPECT_EQ(outputOf("/bin/cat", {}, "text"), "text"); });
    }

    EXPECT_GT(opened, 100);
    EXPECT_EQ(stolen, 0);
}

TEST(ExecuteThreadsTest, ChildrenLogWhileEightThreadsDo)
{
    constexpr int runs = 2'000;
    SilentStderr const silent;
    Log::LoggerProxy::instance().setThreshold(Severity::Trace);
    std::atomic<int> hung{0};
    {
        Background const loggers(8,
                                 []
                                 {
                                     Log::tavroDoLog(Severity::Trace, "%s", {}, "text");
                                     std::time_t const now = 0;
                                     std::tm brokenDown{};
                                     localtime_r(&now, &brokenDown); // as other code does, under a lock
                                 });

        runOnEightThreads({runs, 40s},
                          [&]
                          {
                              std::istringstream const input;
                              auto const result = execute("/no/such/program", {}, {}, input, 20s);
                              hung += result.exitCode == -1 ? 0 : 1;
                          });
    }
    Log::LoggerProxy::instance().setThreshold(Severity::Info);

    EXPECT_EQ(hung, 0);
}

}

}
