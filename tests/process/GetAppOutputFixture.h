#pragma once

#include <utils/Execute.h>

#include "process/ExecuteFixture.h"
#include "process/PipeNumbers.h"

#include <signal.h>
#include <sys/wait.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <sstream>
#include <string>
#include <vector>

namespace Halden::Tavro::TestSupport
{

constexpr pid_t child = 471'147'114; // above the largest process id of the kernel
constexpr char const* onePeriod = "sleep 0 s 10000000";

constexpr int exited(int code)
{
    return code << 8;
}

/// One answer of waitpid, and the status or the errno with it.
struct Answer
{
    pid_t result;
    int value;
};

constexpr Answer running{0, exited(99)}; // a status that nobody may believe
constexpr Answer interrupted{-1, EINTR};

/// getAppOutput for a child that does not exist, with waitpid's answers as the test wants.
class GetAppOutputFixture : public ExecuteFixture
{
protected:
    GetAppOutputFixture()
    {
        waitpidDouble.replace([this](pid_t process, int* status, int options)
                              { return wait(process, status, options); });
        killDouble.replace(
            [this](pid_t process, int signalNumber)
            {
                events.add("kill " + std::to_string(process) + " " + std::to_string(signalNumber));
                return 0;
            });
        nanosleepDouble.replace(
            [this](timespec const* duration, timespec*)
            {
                events.add("sleep " + std::to_string(duration->tv_sec) + " s " + std::to_string(duration->tv_nsec));
                return 0;
            });
        name("stdin", numbersOf(stdinPipe).read, numbersOf(stdinPipe).write);
        name("stdout", numbersOf(stdoutPipe).read, numbersOf(stdoutPipe).write);
        log.onLine([](LogLine const&) { errno = 0; }); // logging may leave any errno
    }

    pid_t wait(pid_t process, int* status, int options)
    {
        EXPECT_EQ(process, child);
        bool const isLook = options == WNOHANG;
        events.add(isLook ? "poll" : "wait " + std::to_string(options));
        if (isLook && runsUntilKilled)
        {
            return 0;
        }
        Answer const answer = answered < answers.size() ? answers[answered] : rest;
        ++answered;
        if (answer.result == -1)
        {
            errno = answer.value;
        }
        else
        {
            *status = answer.value;
        }
        return answer.result;
    }

    Utils::ExecutionResult call(std::chrono::milliseconds timeout = std::chrono::hours(1))
    {
        std::istringstream const input("input");
        return Utils::getAppOutput(stdoutPipe, stdinPipe, child, input, timeout);
    }

    std::size_t eventCount(std::string const& event) const
    {
        auto const all = events.list();
        return static_cast<std::size_t>(std::count(all.begin(), all.end(), event));
    }

    Utils::Pipe stdoutPipe;
    Utils::Pipe stdinPipe;
    bool runsUntilKilled{false}; // each look says so, and the answers are for those who wait
    std::vector<Answer> answers;
    Answer rest{child, exited(0)}; // once the answers are used up
    std::size_t answered{0};
};

}
