#include "process/Spawn.h"

#include "log/Log.h"
#include "process/PipeEnds.h"

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <string>
#include <string_view>
#include <vector>

namespace Halden::Tavro::Utils
{

namespace
{

/// What becomes of the pipes in the child; their own numbers are closed where it turns into the program.
class Attachments
{
public:
    Attachments(Pipe& stdinPipe, Pipe& stdoutPipe)
    {
        posix_spawn_file_actions_init(&actions);
        attach(PipeEnds::numberOf(stdinPipe, Pipe::End::Read), STDIN_FILENO);
        attach(PipeEnds::numberOf(stdoutPipe, Pipe::End::Write), STDOUT_FILENO);
    }

    Attachments(Attachments const&) = delete;
    Attachments& operator=(Attachments const&) = delete;

    ~Attachments() { posix_spawn_file_actions_destroy(&actions); }

    /// False where there was no memory.
    bool isComplete() const { return complete; }

    posix_spawn_file_actions_t const* get() const { return &actions; }

private:
    void attach(int end, int standardDescriptor)
    {
        complete = posix_spawn_file_actions_adddup2(&actions, end, standardDescriptor) == 0 && complete;
    }

    posix_spawn_file_actions_t actions{};
    bool complete{true};
};

/// The environment of this process, with additions as setenv(3) makes them.
class ChildEnvironment
{
public:
    explicit ChildEnvironment(Environment const& additions)
    {
        for (char** next = environ; next != nullptr && *next != nullptr; ++next)
        {
            pointers.push_back(*next);
        }
        texts.reserve(additions.size()); // the pointers must stay
        for (auto const& [name, value] : additions)
        {
            set(upToNul(name), upToNul(value));
        }
        pointers.push_back(nullptr);
    }

    char* const* get() const { return pointers.data(); }

private:
    static std::string upToNul(std::string const& text) { return text.substr(0, text.find('\0')); }

    void set(std::string const& name, std::string const& value)
    {
        if (name.empty() || name.find('=') != std::string::npos)
        {
            return;
        }
        std::string const start = name + "=";
        texts.push_back(start + value);
        auto const isSame = [&start](std::string_view text) { return text.substr(0, start.size()) == start; };
        auto const found = std::find_if(pointers.begin(), pointers.end(), isSame);
        if (found == pointers.end())
        {
            pointers.push_back(texts.back().data());
        }
        else
        {
            *found = texts.back().data();
        }
    }

    std::vector<std::string> texts;
    std::vector<char*> pointers;
};

/// Whether posix_spawn(3) tells of a program that cannot be started. Under an emulator the child may run in a copy of
/// this process after all, which then never hears of it.
bool tellsFailures()
{
    std::array<char*, 1> const noArguments{};
    pid_t child = 0;
    if (posix_spawn(&child, "", nullptr, nullptr, noArguments.data(), environ) != 0)
    {
        return true;
    }
    while (waitpid(child, nullptr, 0) == -1 && errno == EINTR)
    {
    }
    return false;
}

/// Asks once, or once for each of several threads, but without a lock that a forked child could find held.
bool isUsable()
{
    enum class Answer
    {
        Unknown,
        Yes,
        No
    };
    static std::atomic<Answer> answer{Answer::Unknown};
    if (answer == Answer::Unknown)
    {
        answer = tellsFailures() ? Answer::Yes : Answer::No;
    }
    return answer == Answer::Yes;
}

}

std::optional<pid_t> spawn(Pipe& stdinPipe, Pipe& stdoutPipe, char const* path, char* const* arguments,
                           Environment const& environment)
{
    Attachments const attachments(stdinPipe, stdoutPipe);
    if (Log::LoggerProxy::instance().isSeverityEnabled(Log::Severity::Trace) || !attachments.isComplete() ||
        !isUsable())
    {
        return std::nullopt;
    }
    ChildEnvironment const childEnvironment(environment);
    pid_t child = 0;
    if (posix_spawn(&child, path, attachments.get(), nullptr, arguments, childEnvironment.get()) != 0)
    {
        return std::nullopt;
    }
    return child;
}

}
