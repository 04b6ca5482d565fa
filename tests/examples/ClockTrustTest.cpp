// Runs the example on this machine, whatever its clock is like, and compares its answers with the system's own.

#include "support/RunExample.h"
#include "support/SystemClockLock.h"

#include <gmock/gmock.h>

#include <signal.h>
#include <sys/timex.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <string>
#include <vector>

namespace Halden::Tavro::Examples
{

namespace
{

using namespace TestSupport;
using namespace testing;

ChildResult clockTrust(std::vector<std::string> const& arguments, char const* program = CLOCK_TRUST)
{
    return runExample(program, arguments);
}

bool isSynchronised()
{
    timex query{};
    return adjtimex(&query) >= 0 && (query.status & STA_UNSYNC) == 0;
}

/// Sets it to its own reading again and again, as nobody knows when the example has its timer.
[[noreturn]] void setTheClockForSomeSeconds()
{
    for (int i = 0; i < 150; ++i)
    {
        timespec present{};
        clock_gettime(CLOCK_REALTIME, &present);
        clock_settime(CLOCK_REALTIME, &present);
        usleep(100'000);
    }
    _exit(0);
}

TEST(ClockTrustTest, StatusAgreesWithTheVerdict)
{
    auto const result = clockTrust({});

    ASSERT_TRUE(result.exitCode.has_value());
    ASSERT_THAT(*result.exitCode, AnyOf(0, 1));
    EXPECT_THAT(result.output,
                EndsWith(*result.exitCode == 0 ? "The time is absolute.\n" : "The time cannot be believed.\n"));
}

TEST(ClockTrustTest, SynchronisationIsTheKernels)
{
    auto const result = clockTrust({});

    EXPECT_THAT(result.output,
                StartsWith(isSynchronised() ? "Synchronised by a service: yes\n    Clock is synced.\n"
                                            : "Synchronised by a service: no\n    Clock is not synced.\n"));
}

TEST(ClockTrustTest, EveryDeviceIsNamedUntilOneAgrees)
{
    auto const result = clockTrust({});

    bool const agrees = result.output.find("Agrees with a real-time clock: yes\n") != std::string::npos;
    EXPECT_NE(agrees, result.output.find("Agrees with a real-time clock: no\n") != std::string::npos);
    for (std::string const device : {"/dev/rtc0", "/dev/rtc", "/dev/misc/rtc", "/dev/efirtc", "/dev/misc/efirtc"})
    {
        bool const exists = std::filesystem::exists(device);
        if (exists && agrees)
        {
            break; // this one may have ended the search
        }
        EXPECT_THAT(result.output, HasSubstr(exists ? device : "    No RTC available in " + device + ".\n"));
    }
}

TEST(ClockTrustTest, SettingTheClockEndsTheWait)
{
    SystemClockLock const lock;
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    if (clock_settime(CLOCK_REALTIME, &now) != 0)
    {
        GTEST_SKIP() << "not allowed to set the clock: " << strerror(errno);
    }

    pid_t const setter = fork();
    ASSERT_GE(setter, 0);
    if (setter == 0)
    {
        setTheClockForSomeSeconds();
    }
    auto const result = clockTrust({"--wait", "15"}, CLOCK_TRUST_UNTRUSTED);
    kill(setter, SIGKILL);
    waitpid(setter, nullptr, 0);

    EXPECT_EQ(result.exitCode, 0);
    EXPECT_THAT(result.output, EndsWith("Clock time was set.\nThe time is absolute.\n"));
}

TEST(ClockTrustTest, WaitEndsInVainAfterItsTime)
{
    SystemClockLock const lock;
    auto const start = std::chrono::steady_clock::now();
    auto const result = clockTrust({"--wait", "1"}, CLOCK_TRUST_UNTRUSTED);

    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_THAT(result.output, EndsWith("The time cannot be believed.\n"));
}

TEST(ClockTrustTest, BadOptionIsAnsweredWithOneSentence)
{
    expectRefusal(CLOCK_TRUST, {{{"--wiat"}, "--wiat"},
                                {{"--wait"}, "--wait"},
                                {{"--wait", "soon"}, "--wait"},
                                {{"--wait", "-1"}, "--wait"},
                                {{"now"}, "now"}});
}

TEST(ClockTrustTest, HelpNamesTheOption)
{
    auto const result = clockTrust({"--help"});

    EXPECT_EQ(result.exitCode, 0);
    EXPECT_THAT(result.output, HasSubstr("--wait SECONDS"));
}

TEST(ClockTrustTest, VersionIsThatOfTheLibrary)
{
    expectVersion(CLOCK_TRUST);
}

TEST(ClockTrustTest, StandardOutputThatCannotBeWrittenIsAnError)
{
    expectComplaintAboutFullOutput(CLOCK_TRUST, {});
}

}

}
