#pragma once

#include "process/SharedEvents.h"
#include "support/CallDouble.h"
#include "support/LogCapture.h"

#include <gmock/gmock.h>

#include <sys/types.h>

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <ctime>
#include <map>
#include <string>

namespace Halden::Tavro::TestSupport
{

extern CallDouble<int(int*, int)> pipe2Double;
extern CallDouble<int(int, int)> dup2Double;
extern CallDouble<int(int)> closeDouble;
extern CallDouble<int(std::FILE*)> fcloseDouble;
extern CallDouble<std::FILE*(int, char const*)> fdopenDouble;
extern CallDouble<ssize_t(int, void*, std::size_t)> readDouble;
extern CallDouble<int(int, int, long)> fcntlDouble;
extern CallDouble<int(pid_t, unsigned)> pidfdOpenDouble;
extern CallDouble<pid_t()> forkDouble;
extern CallDouble<pid_t(pid_t, int*, int)> waitpidDouble;
extern CallDouble<int(pid_t, int)> killDouble;
extern CallDouble<int(timespec const*, timespec*)> nanosleepDouble;
extern CallDouble<int(char const*, char const*, int)> setenvDouble;
extern CallDouble<int(char const*, char* const*)> execvDouble;

/// Whether calls go to the doubles: the test runtime makes such calls as well, until the very end of the process.
extern std::atomic<bool> underTest;

/// The system's functions under execute(), with what they close told as events.
///
/// For test programs that list process/ExecuteFixture.cpp among their sources.
class ExecuteFixture : public testing::Test
{
protected:
    ExecuteFixture()
    {
        reset();
        closeDouble.replace([this](int descriptor) { return closeAndTell(descriptor); });
        fcloseDouble.replace([this](std::FILE* file) { return fcloseAndTell(file); });
        pidfdOpenDouble.replace(
            [this](pid_t process, unsigned flags)
            {
                int const result = pidfdOpenDouble.passOn(process, flags);
                names.erase(result); // a number that was an end's before
                return result;
            });
        underTest = true;
    }

    ~ExecuteFixture() override
    {
        underTest = false;
        reset();
    }

    static void reset()
    {
        pipe2Double.reset();
        dup2Double.reset();
        closeDouble.reset();
        fcloseDouble.reset();
        fdopenDouble.reset();
        readDouble.reset();
        fcntlDouble.reset();
        pidfdOpenDouble.reset();
        forkDouble.reset();
        waitpidDouble.reset();
        killDouble.reset();
        nanosleepDouble.reset();
        setenvDouble.reset();
        execvDouble.reset();
    }

    /// Names the ends of a Pipe for the events.
    void name(std::string const& pipe, int readEnd, int writeEnd)
    {
        names[readEnd] = pipe + ".read";
        names[writeEnd] = pipe + ".write";
    }

    std::string nameOf(int descriptor) const
    {
        auto const found = names.find(descriptor);
        return found == names.end() ? std::string() : found->second;
    }

    int closeAndTell(int descriptor)
    {
        if (!nameOf(descriptor).empty())
        {
            events.add("close " + nameOf(descriptor));
        }
        return closeDouble.passOn(descriptor);
    }

    int fcloseAndTell(std::FILE* file)
    {
        if (!nameOf(fileno(file)).empty())
        {
            events.add("fclose " + nameOf(fileno(file)));
        }
        return fcloseDouble.passOn(file);
    }

    /// Lets the parent find no open descriptor where it wants to use this end.
    void failToOpen(std::string const& end)
    {
        fdopenDouble.replace([this, end](int descriptor, char const* mode)
                             { return nameOf(descriptor) == end ? nullptr : fdopenDouble.passOn(descriptor, mode); });
        fcntlDouble.replace(
            [this, end](int descriptor, int command, long argument)
            {
                errno = EBADF;
                return nameOf(descriptor) == end ? -1 : fcntlDouble.passOn(descriptor, command, argument);
            });
    }

    /// Tells the log lines as events, with the severity as a number, and leaves logging with another errno.
    void tellLogLines()
    {
        log.onLine(
            [this](LogLine const& line)
            {
                events.add("log " + std::to_string(static_cast<int>(line.severity)) + " " + line.text);
                errno = 0;
            });
    }

    static LogLine free(Log::Severity severity, std::string const& text) { return {severity, "", text}; }

    LogCapture log;
    SharedEvents events;
    std::map<int, std::string> names;
};

}
