#include "Signals.h"

#include <fcntl.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <initializer_list>

namespace
{

volatile sig_atomic_t child = 0; // 0 before it is there
volatile sig_atomic_t emptyFile = -1;

extern "C" void endInput(int signalNumber)
{
    int const error = errno;
    dup2(emptyFile, STDIN_FILENO); // a read that is restarted meets its end
    if (signalNumber == SIGTERM)
    {
        kill(child, SIGTERM);
    }
    errno = error;
}

}

Signals::Signals()
{
    emptyFile = open("/dev/null", O_RDONLY | O_CLOEXEC);
    struct sigaction action = {};
    action.sa_handler = endInput;
    action.sa_flags = SA_RESTART | SA_NOCLDSTOP;
    sigset_t handled;
    sigemptyset(&handled);
    for (int const signalNumber : {SIGALRM, SIGCHLD, SIGTERM})
    {
        sigaddset(&handled, signalNumber);
    }
    sigprocmask(SIG_BLOCK, &handled, &maskBefore);
    for (int const signalNumber : {SIGALRM, SIGCHLD, SIGTERM})
    {
        sigaction(signalNumber, &action, nullptr);
    }
}

void Signals::leave() const
{
    static_cast<void>(signal(SIGTERM, SIG_DFL)); // cannot fail
    sigprocmask(SIG_SETMASK, &maskBefore, nullptr);
}

void Signals::follow(pid_t program, std::chrono::milliseconds time) const
{
    child = program;
    auto const seconds = std::chrono::duration_cast<std::chrono::seconds>(time);
    itimerval timer{};
    timer.it_value.tv_sec = static_cast<time_t>(seconds.count());
    timer.it_value.tv_usec = static_cast<suseconds_t>(std::chrono::microseconds(time - seconds).count());
    setitimer(ITIMER_REAL, &timer, nullptr);
    sigprocmask(SIG_SETMASK, &maskBefore, nullptr);
}
