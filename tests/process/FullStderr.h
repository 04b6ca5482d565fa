#pragma once

#include <log/Logger.h>

#include "support/ChildProcess.h"
#include "support/OtherThreads.h"

#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <functional>
#include <thread>

namespace Halden::Tavro::TestSupport
{

/// Runs a piece in a child, where another thread waits within a log call: standard error is a pipe that nobody reads.
inline ChildResult runWhileALogCallWaits(std::function<void()> const& piece, std::chrono::seconds limit)
{
    return runInChild(
        [&piece]
        {
            std::array<int, 2> ends{};
            if (pipe2(ends.data(), O_CLOEXEC) != 0 || fcntl(ends[1], F_SETPIPE_SZ, 4096) == -1)
            {
                return 1;
            }
            std::array<char, 4096> const page{};
            for (auto left = fcntl(ends[1], F_GETPIPE_SZ); left > 0; left -= static_cast<int>(page.size()))
            {
                if (write(ends[1], page.data(), page.size()) != static_cast<ssize_t>(page.size()))
                {
                    return 2;
                }
            }
            dup2(ends[1], STDERR_FILENO);
            std::thread([] { Log::tavroDoLog(Log::Severity::Info, "text", {}); }).detach();
            OtherThreads::awaitRest();
            piece();
            syscall(SYS_exit_group, 0); // a sanitizer's _exit(2) would wait for standard error
            return 3;
        },
        limit);
}

}
