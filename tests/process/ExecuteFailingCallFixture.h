#pragma once

#include <utils/Execute.h>

#include "process/ExecuteFixture.h"
#include "support/FailingCalls.h"

#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/types.h>
#include <sys/wait.h>

#include <cerrno>
#include <chrono>
#include <cstddef>
#include <sstream>
#include <stdexcept>
#include <string>
#include <tuple>

namespace Halden::Tavro::TestSupport
{

extern CallDouble<ssize_t(int, void const*, std::size_t)> writeDouble;
extern CallDouble<int(pollfd*, nfds_t, int)> pollDouble;
extern CallDouble<int(int, unsigned long, void*)> ioctlDouble;
extern CallDouble<int(pid_t*, char const*, posix_spawn_file_actions_t const*, posix_spawnattr_t const*, char* const*,
                      char* const*)>
    posixSpawnDouble;

/// Programs run by execute(), any of whose calls may fail. No number is ever closed that is closed already.
///
/// For test programs that list process/ExecuteFailingCallFixture.cpp among their sources.
class ExecuteFailingCallFixture : public ExecuteFixture
{
protected:
    ExecuteFailingCallFixture()
    {
        closeDouble.replace(
            [](int descriptor)
            {
                int const result = closeDouble.passOn(descriptor);
                EXPECT_FALSE(result == -1 && errno == EBADF) << "closes " << descriptor << " again";
                return result;
            });
        writeDouble.reset();
        pollDouble.reset();
        ioctlDouble.reset();
        posixSpawnDouble.reset();
        fcloseDouble.replace(nullptr);
        pidfdOpenDouble.replace(nullptr);
    }

    /// A program that copies its input, which ends with it.
    static void copyText()
    {
        std::istringstream const input("text");
        std::string const output =
            Utils::execute("/bin/cat", {"-"}, {{"NAME", "value"}}, input, std::chrono::minutes(1)).output;
        if (output != "text")
        {
            throw std::runtime_error("cat says " + output);
        }
    }

    /// A program whose time is up at once.
    static void killSleeper()
    {
        std::istringstream const input;
        if (Utils::execute("/bin/sleep", {"60"}, {}, input, std::chrono::milliseconds(0)).termSignal != SIGKILL)
        {
            throw std::runtime_error("sleep was not killed");
        }
    }

    /// Ends and reaps the child that is left, if there is one.
    static std::string childLeft()
    {
        siginfo_t state{};
        if (waitid(P_ALL, 0, &state, WEXITED | WNOHANG | WNOWAIT) == -1)
        {
            return "";
        }
        auto const waits = waitpidDouble.calls();
        pid_t const last = waits.empty() ? 0 : std::get<0>(waits.back());
        if (last > 0 && waitid(P_PID, static_cast<id_t>(last), &state, WEXITED | WNOHANG | WNOWAIT) == 0)
        {
            killDouble.passOn(last, SIGKILL); // else it ends with its input
        }
        waitpidDouble.passOn(-1, nullptr, 0);
        return "a child";
    }
};

}
