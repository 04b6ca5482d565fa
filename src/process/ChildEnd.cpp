#include "process/ChildEnd.h"

#include "build/Hardened.h"
#include "log/Log.h"
#include "log/LogErrno.h"

#include <sys/wait.h>

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <utility>

namespace Halden::Tavro::Utils
{

namespace
{

[[noreturn]] void failWithoutStatus(int error)
{
    TAVRO_LOG(Log::Severity::Error, "Failed to get status of child process");
    throw std::runtime_error(strerror(error));
}

void killChild(pid_t child)
{
    TAVRO_LOG(Log::Severity::Debug, "Send kill signal to child process %d", child);
    int const result = kill(child, SIGKILL);
    if (result == 0)
    {
        TAVRO_LOG(Log::Severity::Info, "kill(%d, SIGKILL) succeeded with %d", child, result);
        return;
    }
    TAVRO_LOG_ERRNO("kill(%d, SIGKILL) failed with %d errno = %d (%s)", child, result);
    if (errno == EPERM)
    {
        TAVRO_LOG(Log::Severity::Error, "Parent has no permission to kill child process");
        throw std::runtime_error(strerror(EPERM));
    }
}

bool isToBeRepeated(pid_t answer)
{
    if constexpr (hardened)
    {
        return answer == 0 || (answer == -1 && errno == EINTR);
    }
    else
    {
        return answer == 0; // kept: [interrupted-wait] a signal handler ends the wait, and leaves a zombie
    }
}

}

ChildLook lookAt(pid_t child)
{
    int status = 0;
    pid_t const answer = waitpid(child, &status, WNOHANG);
    int const error = errno;
    if (answer == child)
    {
        TAVRO_LOG(Log::Severity::Debug, "Child finished");
        return {ChildLook::Answer::Ended, status};
    }
    if (answer == -1 && error != EINTR)
    {
        failWithoutStatus(error);
    }
    return {answer == 0 ? ChildLook::Answer::Running : ChildLook::Answer::Interrupted, 0};
}

std::optional<int> killAndReap(pid_t child)
{
    killChild(child);

    int status = 0;
    pid_t answer = 0;
    do
    {
        answer = waitpid(child, &status, 0);
    } while (isToBeRepeated(answer));
    int const error = errno;
    if (answer == child)
    {
        TAVRO_LOG(Log::Severity::Debug, "Child finished after kill");
        return status;
    }
    if (error != EINTR)
    {
        failWithoutStatus(error);
    }
    return std::nullopt;
}

ExecutionResult makeResult(std::optional<int> status, std::string output)
{
    ExecutionResult result;
    result.output = std::move(output);
    if (status && WIFEXITED(*status))
    {
        // kept: [signed-exit-code] a signed byte, so that callers know a program that could not be started, status 255,
        // by -1
        result.exitCode = static_cast<std::int8_t>(WEXITSTATUS(*status));
    }
    else if (status && WIFSIGNALED(*status))
    {
        result.termSignal = static_cast<std::int8_t>(WTERMSIG(*status));
    }
    return result;
}

}
