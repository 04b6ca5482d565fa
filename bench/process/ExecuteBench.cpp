// What it costs the caller to run /bin/true: its processor time, as the rest is sleep and the program's own, and the
// time that passes until it is over.

#include "support/ClockTime.h"

#include <utils/Execute.h>

#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstddef>
#include <ctime>
#include <sstream>
#include <stdexcept>
#include <vector>

using namespace Halden::Tavro::Utils;

namespace
{

/// Of the calling thread, in seconds.
double processorTime()
{
    return std::chrono::duration<double>(Halden::Tavro::TestSupport::timeOf(CLOCK_THREAD_CPUTIME_ID)).count();
}

/// As execute() does.
void waitPolling(pid_t child)
{
    while (waitpid(child, nullptr, WNOHANG) == 0)
    {
        timespec const pause{0, 10'000'000};
        nanosleep(&pause, nullptr);
    }
}

char program[] = "/bin/true";
std::array<char*, 2> const arguments{program, nullptr};

void runExecute()
{
    std::istringstream const input;
    execute(program, {}, {}, input, std::chrono::minutes(1));
}

pid_t spawn()
{
    pid_t child = 0;
    if (posix_spawn(&child, program, nullptr, nullptr, arguments.data(), environ) != 0)
    {
        throw std::runtime_error("posix_spawn failed");
    }
    return child;
}

void runSpawn()
{
    waitPolling(spawn());
}

/// The same calls of the system as execute() makes, and nothing around them.
void runFork()
{
    std::array<int, 2> out{};
    std::array<int, 2> in{};
    if (pipe2(out.data(), O_CLOEXEC) != 0 || pipe2(in.data(), O_CLOEXEC) != 0)
    {
        throw std::runtime_error("no pipes");
    }
    pid_t const child = fork();
    if (child == 0)
    {
        dup2(in[0], STDIN_FILENO);
        dup2(out[1], STDOUT_FILENO);
        execv(program, arguments.data());
        _exit(255);
    }
    close(in[0]);
    close(in[1]);
    close(out[1]);
    waitPolling(child);
    std::array<char, 4096> output{};
    while (read(out[0], output.data(), output.size()) > 0)
    {
    }
    close(out[0]);
}

/// @param run one run; the benchmark's argument is the resident memory beside it, in MiB
void measure(benchmark::State& state, void (*run)())
{
    std::vector<char> const resident(static_cast<std::size_t>(state.range(0)) * 1024 * 1024, 'x');
    benchmark::DoNotOptimize(resident.data());
    for (auto _ : state)
    {
        double const before = processorTime();
        run();
        state.SetIterationTime(processorTime() - before);
    }
}

void runTrueExecute(benchmark::State& state)
{
    measure(state, runExecute);
}
BENCHMARK(runTrueExecute)->Arg(0)->Arg(1024)->Iterations(20)->UseManualTime();

void runTrueSpawn(benchmark::State& state)
{
    measure(state, runSpawn);
}
BENCHMARK(runTrueSpawn)->Arg(0)->Arg(1024)->Iterations(20)->UseManualTime();

void runTrueFork(benchmark::State& state)
{
    measure(state, runFork);
}
BENCHMARK(runTrueFork)->Arg(0)->Arg(1024)->Iterations(20)->UseManualTime();

void timeTrueExecute(benchmark::State& state)
{
    for (auto _ : state)
    {
        runExecute();
    }
}
BENCHMARK(timeTrueExecute)->UseRealTime();

void timeTrueSpawn(benchmark::State& state)
{
    for (auto _ : state)
    {
        waitpid(spawn(), nullptr, 0);
    }
}
BENCHMARK(timeTrueSpawn)->UseRealTime();

}
