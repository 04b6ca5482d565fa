#include "log/Log.h"

#include "support/LogCapture.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <climits>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <ostream>
#include <regex>
#include <string>
#include <vector>

namespace Halden::Tavro::Utils
{

namespace
{

using namespace testing;
using namespace TestSupport;
using Log::Severity;

/// One format of the library, logged with the widest values that its specifiers carry.
struct LoggedFormat
{
    std::string format;
    void (*log)();
    std::string text;
};

void PrintTo(LoggedFormat const& logged, std::ostream* stream)
{
    *stream << '"' << logged.format << '"';
}

// The format comes as a literal, for the compiler's check of the values, and as a text.
#define LOGGED(format, text, ...)                                                                                      \
    LoggedFormat                                                                                                       \
    {                                                                                                                  \
        format, [] { TAVRO_LOG(Severity::Trace, format, __VA_ARGS__); }, text                                          \
    }

// What the values print as. Those of "%lu" depend on the target, whose `unsigned long` has 32 bits.
int const lowest = INT_MIN;                   // -2147483648
unsigned const largest = UINT_MAX;            // 4294967295
unsigned long const widest = ULONG_MAX;       // see widestText
double const beyond32Bits = 4503599627370495; // 52 bits, so exact; with a fraction it would not be
std::string const widestText = sizeof(unsigned long) == 8 ? "18446744073709551615" : "4294967295";

std::vector<LoggedFormat> const loggedFormats{
    // files
    LOGGED("Cannot create temporary directory in '%s', errno is %d: %s",
           "Cannot create temporary directory in '/tmp', errno is -2147483648: why", "/tmp", lowest, "why"),
    LOGGED("Cannot create temporary file in %s, errno is %d: %s",
           "Cannot create temporary file in /tmp, errno is -2147483648: why", "/tmp", lowest, "why"),
    LOGGED("Cannot remove temporary directory '%s', errno is %d: %s",
           "Cannot remove temporary directory '/tmp/a', errno is -2147483648: why", "/tmp/a", lowest, "why"),
    LOGGED("Cannot remove temporary file %s, errno is %d: %s",
           "Cannot remove temporary file /tmp/a, errno is -2147483648: why", "/tmp/a", lowest, "why"),
    LOGGED("Created directory %s", "Created directory /tmp/a", "/tmp/a"),
    LOGGED("Created file %s (fd = %d)", "Created file /tmp/a (fd = -2147483648)", "/tmp/a", lowest),
    LOGGED("Expect one single node for xpath '%s' but got %lu",
           "Expect one single node for xpath '//a' but got " + widestText, "//a", widest),
    LOGGED("Failed to read file %s", "Failed to read file /tmp/a", "/tmp/a"),
    LOGGED("H5close failed with %d", "H5close failed with -2147483648", lowest),
    LOGGED("H5open failed with %d", "H5open failed with -2147483648", lowest),
    LOGGED("XML Validation ERROR: %s", "XML Validation ERROR: what\n", "what\n"),
    LOGGED("XML Validation Warning: %s", "XML Validation Warning: what\n", "what\n"),

    // net
    LOGGED("-receiverThread caught exception %s", "-receiverThread caught exception what", "what"),
    LOGGED("Could not find any network interface with IP address %s assigned",
           "Could not find any network interface with IP address ::1 assigned", "::1"),
    LOGGED("Couldn't open NETLINK_ROUTE socket, errno=%d (%s)",
           "Couldn't open NETLINK_ROUTE socket, errno=-2147483648 (why)", lowest, "why"),
    LOGGED("Failed to bind to NETLINK_ROUTE socket, errno=%d (%s)",
           "Failed to bind to NETLINK_ROUTE socket, errno=-2147483648 (why)", lowest, "why"),
    LOGGED("Failed to set the socket as O_NONBLOCK, fcntl set errno to %d(%s)",
           "Failed to set the socket as O_NONBLOCK, fcntl set errno to -2147483648(why)", lowest, "why"),
    LOGGED("Found IP address %s on network interface %s", "Found IP address ::1 on network interface lo", "::1", "lo"),
    LOGGED("IpAddress::fromString(%s): getaddrinfo failed with %d (%s)",
           "IpAddress::fromString(::x): getaddrinfo failed with -2147483648 (why)", "::x", lowest, "why"),
    LOGGED("IpAddress::fromString(%s): no IP address found in getaddrinfo result",
           "IpAddress::fromString(::x): no IP address found in getaddrinfo result", "::x"),
    LOGGED("IpAddress::operator== unsupported address family: %u",
           "IpAddress::operator== unsupported address family: 4294967295", largest),
    LOGGED("handleLostAddress(%s): IP is NOT in our list, doing nothing",
           "handleLostAddress(::1): IP is NOT in our list, doing nothing", "::1"),
    LOGGED("handleNewAddress(%s): IP is already in our list, doing nothing",
           "handleNewAddress(::1): IP is already in our list, doing nothing", "::1"),
    LOGGED("ifaToSockaddr, got an invalid ifa_family %u", "ifaToSockaddr, got an invalid ifa_family 4294967295",
           largest),
    LOGGED("inet_ntop failed with errno %d (%s)", "inet_ntop failed with errno -2147483648 (why)", lowest, "why"),
    LOGGED("initialAddrList: getifaddrs failed with %d(%s)", "initialAddrList: getifaddrs failed with -2147483648(why)",
           lowest, "why"),
    LOGGED("lost IP address: %s", "lost IP address: ::1", "::1"),
    LOGGED("networkIfcNameForIp: getifaddrs failed with %d(%s)",
           "networkIfcNameForIp: getifaddrs failed with -2147483648(why)", lowest, "why"),
    LOGGED("new IP address: %s", "new IP address: ::1", "::1"),
    LOGGED("poll failed with %d(%s)", "poll failed with -2147483648(why)", lowest, "why"),
    LOGGED("processAllNetlinkMessages: ignoring exception %s", "processAllNetlinkMessages: ignoring exception what",
           "what"),
    LOGGED("receiverThread: recv on NETLINK_ROUTE socket failed, errno %d (%s),",
           "receiverThread: recv on NETLINK_ROUTE socket failed, errno -2147483648 (why),", lowest, "why"),
    LOGGED("receiverThread: recv returned %d", "receiverThread: recv returned -2147483648", lowest),

    // process
    LOGGED("Failed to execute the command '%s'", "Failed to execute the command 'ls'", "ls"),
    LOGGED("Failed to read the output of command '%s'.", "Failed to read the output of command 'ls'.", "ls"),
    LOGGED("Send kill signal to child process %d", "Send kill signal to child process -2147483648", lowest),
    LOGGED("Timeout is set to %fs", "Timeout is set to 4503599627370495.000000s", beyond32Bits),
    LOGGED("executing cmd '%s'", "executing cmd 'ls'", "ls"),
    LOGGED("execve() failed with %s", "execve() failed with why", "why"),
    LOGGED("kill(%d, SIGKILL) failed with %d errno = %d (%s)",
           "kill(-2147483648, SIGKILL) failed with -1 errno = -2147483648 (why)", lowest, -1, lowest, "why"),
    LOGGED("kill(%d, SIGKILL) succeeded with %d", "kill(-2147483648, SIGKILL) succeeded with 0", lowest, 0),
    LOGGED("read %u bytes from it's stdout", "read 4294967295 bytes from it's stdout", largest),
    LOGGED("read from stdout: %s", "read from stdout: text", "text"),

    // scheduling
    LOGGED("%s", "text", "text"),
    LOGGED("+periodicCallerThread(name = %s)", "+periodicCallerThread(name = led)", "led"),
    LOGGED("-periodicCallerThread(name = %s)", "-periodicCallerThread(name = led)", "led"),
    LOGGED("Adding item with period (%lu)ms", "Adding item with period (" + widestText + ")ms", widest),
    LOGGED("Item added. Having (%lu) now", "Item added. Having (" + widestText + ") now", widest),
    LOGGED("PcmItem execution threw exception. Exception: %s.\n",
           "PcmItem execution threw exception. Exception: what.\n", "what"),
    LOGGED("PcmItem execution threw exception. Exception: %s.\nFurther exceptions will be logged with trace level",
           "PcmItem execution threw exception. Exception: what.\nFurther exceptions will be logged with trace level",
           "what"),
    LOGGED("PeriodicCaller thread stop because of exception. What: %s",
           "PeriodicCaller thread stop because of exception. What: what", "what"),
    LOGGED("Scheduler thread failed with error %s", "Scheduler thread failed with error what", "what"),
    LOGGED("dueInPeriod: (%lu) items", "dueInPeriod: (" + widestText + ") items", widest),
    LOGGED("executed %u items sequentialy", "executed 4294967295 items sequentialy", largest),
    LOGGED("executed %u items using thread pool", "executed 4294967295 items using thread pool", largest),
    LOGGED("executing %u items sequentialy", "executing 4294967295 items sequentialy", largest),
    LOGGED("executing %u items using thread pool", "executing 4294967295 items using thread pool", largest),
    LOGGED("~remove: removed one, now has %lu items", "~remove: removed one, now has " + widestText + " items", widest),

    // time
    LOGGED("Clock is %ssynced.", "Clock is not synced.", "not "),
    LOGGED("Error accessing clock set timer: Stop polling. errno %d (%s).",
           "Error accessing clock set timer: Stop polling. errno -2147483648 (why).", lowest, "why"),
    LOGGED("Failed to start a timer to detect when the clock is set. errno %d (%s).",
           "Failed to start a timer to detect when the clock is set. errno -2147483648 (why).", lowest, "why"),
    LOGGED("No RTC available in %s.", "No RTC available in /dev/rtc.", "/dev/rtc"),
    LOGGED("Reading %s failed with errno %d (%s)", "Reading /dev/rtc failed with errno -2147483648 (why)", "/dev/rtc",
           lowest, "why"),
    LOGGED("Reading timer file descriptor succeeded unexpectedly: %s",
           "Reading timer file descriptor succeeded unexpectedly: 0123456789", "0123456789"),
    LOGGED("System time is %d sec %s than %s.", "System time is -2147483648 sec faster than /dev/rtc.", lowest,
           "faster", "/dev/rtc"),
    LOGGED("Unable to determine if system clock is in sync. errno %d (%s).",
           "Unable to determine if system clock is in sync. errno -2147483648 (why).", lowest, "why"),
    LOGGED("error creating timer to check for system time updates. errno %d (%s).",
           "error creating timer to check for system time updates. errno -2147483648 (why).", lowest, "why")};

/// The string literals that begin the text, joined, as the compiler reads them.
std::string joined(std::string const& literals)
{
    std::string result;
    std::regex const literal(R"re("((?:[^"\\]|\\.)*)")re");
    for (std::sregex_iterator it(literals.begin(), literals.end(), literal), end; it != end; ++it)
    {
        result += (*it)[1];
    }
    return std::regex_replace(std::regex_replace(result, std::regex(R"(\\n)"), "\n"), std::regex(R"(\\")"), "\"");
}

/// The formats with values in the log calls of one source file; errno is a value that needs no other beside it.
std::vector<std::string> formatsIn(std::filesystem::path const& source)
{
    std::ifstream file(source);
    std::string const text(std::istreambuf_iterator<char>(file), {});
    std::regex const call(R"re(TAVRO_LOG(?:(?:_TO)?\([^";]*((?:"(?:[^"\\]|\\.)*"\s*)+),)re"
                          R"re(|_ERRNO(?:_TO)?\([^";]*((?:"(?:[^"\\]|\\.)*"\s*)+)))re");
    std::vector<std::string> formats;
    for (std::sregex_iterator it(text.begin(), text.end(), call), end; it != end; ++it)
    {
        formats.push_back(joined((*it)[1].matched ? (*it)[1] : (*it)[2]));
    }
    return formats;
}

TEST(LogFormatsTest, EachFormatPrintsItsWidestValues)
{
    LogCapture const log;
    for (LoggedFormat const& logged : loggedFormats)
    {
        logged.log();
    }

    auto const lines = log.lines();
    ASSERT_EQ(lines.size(), loggedFormats.size());
    for (std::size_t i = 0; i != lines.size(); ++i)
    {
        EXPECT_EQ(lines[i].text, loggedFormats[i].text);
    }
}

TEST(LogFormatsTest, EveryFormatOfTheSourcesIsAmongThem)
{
    std::size_t found = 0;
    for (auto const& entry : std::filesystem::recursive_directory_iterator(LIBRARY_SOURCES))
    {
        if (entry.path().extension() == ".cpp")
        {
            for (std::string const& format : formatsIn(entry.path()))
            {
                ++found;
                EXPECT_THAT(loggedFormats, Contains(Field("format", &LoggedFormat::format, format)))
                    << entry.path() << " logs it";
            }
        }
    }
    EXPECT_GE(found, 20U);
}

}

}
