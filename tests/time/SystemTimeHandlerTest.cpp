#include <utils/SystemTimeHandler.h>

#include "scheduling/SchedulerSleep.h"
#include "support/CallDouble.h"
#include "support/LogCapture.h"
#include "support/Resources.h"
#include "support/WaitFor.h"

#include <gmock/gmock.h>

#include <dlfcn.h>
#include <fcntl.h>
#include <linux/rtc.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/timerfd.h>
#include <sys/timex.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <future>
#include <set>
#include <string>
#include <thread>

namespace Halden::Tavro::Utils
{

namespace
{

using Log::Severity;
using testing::_;
using testing::ElementsAre;
using testing::FieldsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using TestSupport::CallDouble;
using TestSupport::isLine;
using TestSupport::LogCapture;
using TestSupport::LogLine;
using TestSupport::systemFunction;
using TestSupport::waitFor;
namespace SchedulerSleep = TestSupport::SchedulerSleep;
using namespace std::chrono_literals;

constexpr int timer = 4711; // no descriptor of the process
constexpr int rtc = 4712;

/// The test runtime reads, closes and opens as well: without one of these a call goes straight to the system.
std::atomic<int> timerUnderTest{-1};
std::atomic<bool> devicesUnderTest{false};

CallDouble<int(timex*)> adjtimexDouble{"adjtimex"};
CallDouble<int(char const*, int, mode_t)> openDouble{"open"};
CallDouble<int(int, unsigned long, void*)> ioctlDouble{"ioctl"};
CallDouble<int(int)> closeDouble{"close"};
CallDouble<time_t(std::tm*)> mktimeDouble{"mktime"};
CallDouble<int(int, int)> timerfdCreateDouble{"timerfd_create"};
CallDouble<int(int, int, itimerspec const*, itimerspec*)> timerfdSettimeDouble{"timerfd_settime"};
CallDouble<ssize_t(int, void*, size_t)> readDouble{"read"};

using FileStatus = struct stat64;
CallDouble<int(char const*, FileStatus*)> statDouble{"stat64"};

bool isDevice(char const* path)
{
    std::string const text(path);
    return devicesUnderTest && text.rfind("/dev/", 0) == 0 && text.find("rtc") != std::string::npos;
}

bool isUnderTest(int descriptor)
{
    return descriptor == rtc || (descriptor >= 0 && descriptor == timerUnderTest);
}

}

}

using namespace Halden::Tavro::Utils;

// Outside of the namespace, for only there do the headers' other names for wide times take hold.
extern "C"
{

    int adjtimex(timex* query) noexcept
    {
        return adjtimexDouble(query);
    }

    int openOfTest(char const* path, int flags, ...)
    {
        mode_t mode = 0;
        if ((flags & (O_CREAT | O_TMPFILE)) != 0)
        {
            va_list arguments;
            va_start(arguments, flags);
            mode = va_arg(arguments, mode_t);
            va_end(arguments);
        }
        return isDevice(path) ? openDouble(path, flags, mode)
                              : systemFunction<int (*)(char const*, int, ...)>("open")(path, flags, mode);
    }

    int ioctlOfTest(int descriptor, unsigned long request, ...) noexcept
    {
        va_list arguments;
        va_start(arguments, request);
        void* const argument = va_arg(arguments, void*);
        va_end(arguments);
        return isUnderTest(descriptor)
                   ? ioctlDouble(descriptor, request, argument)
                   : systemFunction<int (*)(int, unsigned long, ...)>("ioctl")(descriptor, request, argument);
    }

    int close(int descriptor)
    {
        return isUnderTest(descriptor) ? closeDouble(descriptor) : systemFunction<int (*)(int)>("close")(descriptor);
    }

    time_t mktime(std::tm* time) noexcept
    {
        return mktimeDouble(time);
    }

    int timerfd_create(int clock, int flags) noexcept
    {
        return timerfdCreateDouble(clock, flags);
    }

    int timerfd_settime(int descriptor, int flags, itimerspec const* spec, itimerspec* before) noexcept
    {
        return timerfdSettimeDouble(descriptor, flags, spec, before);
    }

    ssize_t read(int descriptor, void* buffer, size_t size)
    {
        return isUnderTest(descriptor)
                   ? readDouble(descriptor, buffer, size)
                   : systemFunction<ssize_t (*)(int, void*, size_t)>("read")(descriptor, buffer, size);
    }

    int statOfTest(char const* path, FileStatus* result) noexcept
    {
        return isDevice(path) ? statDouble(path, result) : statDouble.passOn(path, result);
    }
}
HALDEN_DOUBLE(open, openOfTest)
HALDEN_DOUBLE(ioctl, ioctlOfTest)
HALDEN_DOUBLE(stat64, statOfTest)

namespace Halden::Tavro::Utils
{

namespace
{

std::int64_t nowInSeconds()
{
    return std::chrono::duration_cast<std::chrono::seconds>(std::chrono::system_clock::now().time_since_epoch())
        .count();
}

class Token : public PeriodicCallerManagerTokenIfc
{
public:
    Token(std::unique_ptr<PeriodicCallerManagerTokenIfc> inner, std::function<void()> onDestruction)
        : inner(std::move(inner))
        , onDestruction(std::move(onDestruction))
    {
    }

    Token(Token const&) = delete;
    Token& operator=(Token const&) = delete;

    ~Token() override { onDestruction(); }

private:
    std::unique_ptr<PeriodicCallerManagerTokenIfc> inner;
    std::function<void()> onDestruction;
};

/// Keeps what is registered for the test to call.
class ManualManager : public PeriodicCallerManagerIfc
{
public:
    std::unique_ptr<PeriodicCallerManagerTokenIfc> add(std::function<void()> added,
                                                       std::chrono::duration<double> asked) override
    {
        function = std::move(added);
        period = asked;
        ++registered;
        duringAdd();
        return std::make_unique<Token>(nullptr,
                                       [this]
                                       {
                                           ++destroyed;
                                           onTokenDestruction();
                                       });
    }

    std::function<void()> function;
    std::chrono::duration<double> period{0};
    int registered{0};
    std::atomic<int> destroyed{0};
    std::function<void()> duringAdd = [] {};
    std::function<void()> onTokenDestruction = [] {};
};

class Handler : public SystemTimeHandler
{
public:
    using SystemTimeHandler::pollTimeStatus;
    using SystemTimeHandler::rtcValid;
    using SystemTimeHandler::startSetClockDetection;
    using SystemTimeHandler::syncedByService;

    explicit Handler(std::shared_ptr<PeriodicCallerManagerIfc> manager)
        : Log::Logger("SystemTime", "", std::make_shared<Log::LoggerImpl>())
        , SystemTimeHandler(std::move(manager))
    {
    }
};

/// A machine without synchronisation and without real-time clocks, whose timer has not been cancelled.
class SystemTimeHandlerTest : public testing::Test
{
protected:
    SystemTimeHandlerTest()
    {
        adjtimexDouble.reset();
        openDouble.reset();
        ioctlDouble.reset();
        closeDouble.reset();
        mktimeDouble.reset();
        timerfdCreateDouble.reset();
        timerfdSettimeDouble.reset();
        readDouble.reset();
        statDouble.reset();

        adjtimexDouble.replace(
            [this](timex* query)
            {
                EXPECT_EQ(query->modes, 0U);
                query->status = kernelStatus;
                return TIME_ERROR;
            });
        statDouble.replace(
            [this](char const* path, FileStatus* result)
            {
                result->st_mode = S_IFCHR;
                errno = ENOENT;
                return devices.count(path) > 0 ? 0 : -1;
            });
        openDouble.replace([](char const*, int, mode_t) { return rtc; });
        ioctlDouble.replace([this](int, unsigned long, void* reading) { return readRtc(reading); });
        closeDouble.replace(
            [this](int descriptor)
            {
                events.push_back("close " + std::to_string(descriptor));
                return 0;
            });
        timerfdCreateDouble.replace([](int, int) { return timer; });
        timerfdSettimeDouble.replace(
            [this](int, int, itimerspec const* spec, itimerspec*)
            {
                armedWith = *spec;
                return 0;
            });
        letReadFail(EAGAIN);
        timerUnderTest = timer;
        devicesUnderTest = true;
    }

    ~SystemTimeHandlerTest() override
    {
        devicesUnderTest = false;
        timerUnderTest = -1;
        adjtimexDouble.reset();
        timerfdCreateDouble.reset();
        timerfdSettimeDouble.reset();
        mktimeDouble.reset();
    }

    int readRtc(void* reading) const
    {
        time_t const time = static_cast<time_t>(nowInSeconds() + rtcOffset);
        std::tm parts{};
        localtime_r(&time, &parts);
        *static_cast<rtc_time*>(reading) = {parts.tm_sec,  parts.tm_min,  parts.tm_hour, parts.tm_mday, parts.tm_mon,
                                            parts.tm_year, parts.tm_wday, parts.tm_yday, parts.tm_isdst};
        return 0;
    }

    static void letReadFail(int error)
    {
        readDouble.replace(
            [error](int, void*, size_t)
            {
                errno = error;
                return ssize_t{-1};
            });
    }

    /// The verdict on a device while the system clock stays within one second.
    bool verdictWithinOneSecond()
    {
        for (int attempt = 0; attempt < 20; ++attempt)
        {
            log.clear();
            second = nowInSeconds();
            bool const verdict = devRtcValid("/dev/rtc0");
            if (nowInSeconds() == second)
            {
                return verdict;
            }
        }
        ADD_FAILURE() << "no verdict within one second";
        return false;
    }

    void expectLine(Severity severity, std::string const& text) { log.expect(isLine(severity, "SystemTime", text)); }

    /// A sink that logging leaves with another errno.
    void letLoggingChangeErrno()
    {
        log.onLine([](LogLine const&) { errno = 0; });
    }

    LogCapture log;
    int kernelStatus{STA_UNSYNC};
    std::set<std::string> devices;
    std::int64_t rtcOffset{0};
    std::int64_t second{0};
    itimerspec armedWith{};
    std::vector<std::string> events;
    std::shared_ptr<ManualManager> manager = std::make_shared<ManualManager>();
    Handler sut{manager};
};

TEST_F(SystemTimeHandlerTest, ConstructionAsksNothing)
{
    EXPECT_FALSE(sut.hasAbsoluteTime());
    EXPECT_EQ(adjtimexDouble.count(), 0U);
    EXPECT_EQ(statDouble.count(), 0U);
    EXPECT_EQ(timerfdCreateDouble.count(), 0U);
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(SystemTimeHandlerTest, SynchronisedClockIsSeen)
{
    kernelStatus = STA_PLL;

    EXPECT_TRUE(sut.syncedByService());

    EXPECT_THAT(log.lines(), ElementsAre(isLine(Severity::Debug, "SystemTime", "Clock is synced.")));
}

TEST_F(SystemTimeHandlerTest, UnsynchronisedClockIsSeenWhateverElseTheStatusSays)
{
    kernelStatus = STA_UNSYNC | STA_PLL | STA_NANO;

    EXPECT_FALSE(sut.syncedByService());

    EXPECT_THAT(log.lines(), ElementsAre(isLine(Severity::Debug, "SystemTime", "Clock is not synced.")));
}

TEST_F(SystemTimeHandlerTest, StateOfTheClockBesidesTheStatusDoesNotCount)
{
    adjtimexDouble.replace(
        [](timex* query)
        {
            query->status = 0;
            return TIME_ERROR;
        });

    EXPECT_TRUE(sut.syncedByService());
}

TEST_F(SystemTimeHandlerTest, FailedQueryOfTheKernelCountsAsNotSynchronised)
{
    kernelStatus = 0;
    adjtimexDouble.failCall(1, -1, EFAULT);
    letLoggingChangeErrno();
    std::string const text = "Unable to determine if system clock is in sync. errno 14 (Bad address).";
    expectLine(Severity::Error, text);

    EXPECT_FALSE(sut.syncedByService());

    EXPECT_THAT(log.lines(), ElementsAre(isLine(Severity::Error, "SystemTime", text)));
}

TEST_F(SystemTimeHandlerTest, AbsentDeviceIsNotOpened)
{
    EXPECT_FALSE(devRtcValid("/dev/rtc0"));

    EXPECT_THAT(log.lines(), ElementsAre(isLine(Severity::Debug, "", "No RTC available in /dev/rtc0.")));
    EXPECT_EQ(openDouble.count(), 0U);
}

TEST_F(SystemTimeHandlerTest, DeviceBelowAFileCountsAsAbsent)
{
    EXPECT_FALSE(devRtcValid("/etc/passwd/clock"));

    EXPECT_THAT(log.lines(), ElementsAre(isLine(Severity::Debug, "", "No RTC available in /etc/passwd/clock.")));
}

TEST_F(SystemTimeHandlerTest, StatusThatCannotBeToldThrows)
{
    std::string const tooLong = "/" + std::string(300, 'x');

    EXPECT_THROW(devRtcValid(tooLong), std::filesystem::filesystem_error);

    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(SystemTimeHandlerTest, DeviceThatCannotBeOpenedIsNotValid)
{
    devices = {"/dev/rtc0"};
    openDouble.failCall(1, -1, EACCES);
    letLoggingChangeErrno();
    auto const line = isLine(Severity::Error, "", "Reading /dev/rtc0 failed with errno 13 (Permission denied)");
    log.expect(line);

    EXPECT_FALSE(devRtcValid("/dev/rtc0"));

    EXPECT_THAT(log.lines(), ElementsAre(line));
    EXPECT_EQ(ioctlDouble.count(), 0U);
    EXPECT_EQ(closeDouble.count(), 0U);
}

TEST_F(SystemTimeHandlerTest, DeviceWhoseClockDoesNotAnswerStaysOpen)
{
    devices = {"/dev/rtc0"};
    ioctlDouble.failCall(1, -1, EINVAL);
    letLoggingChangeErrno();
    auto const line = isLine(Severity::Error, "", "Reading /dev/rtc0 failed with errno 22 (Invalid argument)");
    log.expect(line);

    EXPECT_FALSE(devRtcValid("/dev/rtc0"));

    EXPECT_THAT(log.lines(), ElementsAre(line));
    EXPECT_EQ(openDouble.count(), 1U);
    EXPECT_EQ(closeDouble.count(), 0U);
}

TEST_F(SystemTimeHandlerTest, FileThatIsNoClockCostsARealDescriptor)
{
    auto const before = TestSupport::openDescriptors();
    auto const line =
        isLine(Severity::Error, "", "Reading /dev/null failed with errno 25 (Inappropriate ioctl for device)");
    log.expect(line);

    EXPECT_FALSE(devRtcValid("/dev/null"));

    EXPECT_THAT(log.lines(), ElementsAre(line));
    EXPECT_EQ(TestSupport::openDescriptors(), before + 1);
}

TEST_F(SystemTimeHandlerTest, DeviceIsOpenedReadOnlyAskedOnceAndClosed)
{
    devices = {"/dev/rtc0"};

    EXPECT_TRUE(devRtcValid("/dev/rtc0"));

    ASSERT_EQ(openDouble.count(), 1U);
    EXPECT_EQ(std::get<1>(openDouble.calls()[0]), O_RDONLY);
    ASSERT_EQ(ioctlDouble.count(), 1U);
    EXPECT_EQ(std::get<0>(ioctlDouble.calls()[0]), rtc);
    EXPECT_EQ(std::get<1>(ioctlDouble.calls()[0]), static_cast<unsigned long>(RTC_RD_TIME));
    EXPECT_THAT(events, ElementsAre("close 4712"));
}

TEST_F(SystemTimeHandlerTest, EqualClocksCountAsSlower)
{
    devices = {"/dev/rtc0"};

    EXPECT_TRUE(verdictWithinOneSecond());

    EXPECT_THAT(log.lines(), ElementsAre(isLine(Severity::Debug, "", "System time is 0 sec slower than /dev/rtc0.")));
}

TEST_F(SystemTimeHandlerTest, TwentyNineSecondsOffIsValid)
{
    devices = {"/dev/rtc0"};

    rtcOffset = 29;
    EXPECT_TRUE(verdictWithinOneSecond());
    EXPECT_THAT(log.lines(), ElementsAre(isLine(Severity::Debug, "", "System time is 29 sec slower than /dev/rtc0.")));

    rtcOffset = -29;
    EXPECT_TRUE(verdictWithinOneSecond());
    EXPECT_THAT(log.lines(), ElementsAre(isLine(Severity::Debug, "", "System time is 29 sec faster than /dev/rtc0.")));
}

TEST_F(SystemTimeHandlerTest, ThirtySecondsOffIsNotValid)
{
    devices = {"/dev/rtc0"};

    rtcOffset = 30;
    EXPECT_FALSE(verdictWithinOneSecond());
    EXPECT_THAT(log.lines(), ElementsAre(isLine(Severity::Debug, "", "System time is 30 sec slower than /dev/rtc0.")));

    rtcOffset = -30;
    EXPECT_FALSE(verdictWithinOneSecond());
    EXPECT_THAT(log.lines(), ElementsAre(isLine(Severity::Debug, "", "System time is 30 sec faster than /dev/rtc0.")));
}

TEST_F(SystemTimeHandlerTest, DeviceReadingCountsAsLocalTime)
{
    devices = {"/dev/rtc0"};
    setenv("TZ", "XYZ-9", 1);
    tzset();

    bool const localReading = verdictWithinOneSecond();
    rtcOffset = -9 * 3600;
    bool const utcReading = verdictWithinOneSecond();
    unsetenv("TZ");
    tzset();

    EXPECT_TRUE(localReading);
    EXPECT_FALSE(utcReading);
}

TEST_F(SystemTimeHandlerTest, EveryFieldOfTheReadingIsConverted)
{
    devices = {"/dev/rtc0"};
    ioctlDouble.replace(
        [](int, unsigned long, void* reading)
        {
            *static_cast<rtc_time*>(reading) = {1, 2, 3, 4, 5, 6, 7, 8, 9};
            return 0;
        });
    std::tm seen{};
    mktimeDouble.replace(
        [&seen](std::tm* time)
        {
            seen = *time;
            return time_t{0};
        });

    EXPECT_FALSE(devRtcValid("/dev/rtc0"));

    EXPECT_EQ(seen.tm_sec, 1);
    EXPECT_EQ(seen.tm_min, 2);
    EXPECT_EQ(seen.tm_hour, 3);
    EXPECT_EQ(seen.tm_mday, 4);
    EXPECT_EQ(seen.tm_mon, 5);
    EXPECT_EQ(seen.tm_year, 6);
    EXPECT_EQ(seen.tm_wday, 7);
    EXPECT_EQ(seen.tm_yday, 8);
    EXPECT_EQ(seen.tm_isdst, 9);
}

TEST_F(SystemTimeHandlerTest, ReadingThatCannotBeConvertedIsNotValid)
{
    devices = {"/dev/rtc0"};
    mktimeDouble.replace([](std::tm*) { return time_t{-1}; });

    EXPECT_FALSE(verdictWithinOneSecond());

    EXPECT_THAT(log.lines(), ElementsAre(isLine(Severity::Debug, "",
                                                "System time is " + std::to_string(static_cast<int>(second + 1)) +
                                                    " sec faster than /dev/rtc0.")));
}

TEST_F(SystemTimeHandlerTest, DistanceIsJudgedBeforeItIsCutToAnInt)
{
    if constexpr (sizeof(time_t) < sizeof(std::int64_t))
    {
        GTEST_SKIP() << "time_t of this system holds no such distance";
    }
    devices = {"/dev/rtc0"};
    mktimeDouble.replace([this](std::tm*) { return static_cast<time_t>(second + (std::int64_t{1} << 32) + 5); });

    EXPECT_FALSE(verdictWithinOneSecond());

    EXPECT_THAT(log.lines(), ElementsAre(isLine(Severity::Debug, "", "System time is 5 sec slower than /dev/rtc0.")));
}

TEST_F(SystemTimeHandlerTest, FiveDevicesAreTriedInOrder)
{
    EXPECT_FALSE(sut.rtcValid());

    EXPECT_THAT(log.lines(), ElementsAre(isLine(Severity::Debug, "", "No RTC available in /dev/rtc0."),
                                         isLine(Severity::Debug, "", "No RTC available in /dev/rtc."),
                                         isLine(Severity::Debug, "", "No RTC available in /dev/misc/rtc."),
                                         isLine(Severity::Debug, "", "No RTC available in /dev/efirtc."),
                                         isLine(Severity::Debug, "", "No RTC available in /dev/misc/efirtc.")));
}

TEST_F(SystemTimeHandlerTest, DevicesAfterTheFirstValidOneAreNotTried)
{
    devices = {"/dev/rtc", "/dev/misc/rtc"};
    rtcOffset = 5; // so that no tick of the system clock meanwhile makes it the faster one

    EXPECT_TRUE(sut.rtcValid());

    EXPECT_THAT(log.lines(), ElementsAre(isLine(Severity::Debug, "", "No RTC available in /dev/rtc0."),
                                         isLine(Severity::Debug, "", HasSubstr("slower than /dev/rtc."))));
    EXPECT_EQ(openDouble.count(), 1U);
}

TEST_F(SystemTimeHandlerTest, LastDeviceCountsAsWell)
{
    devices = {"/dev/misc/efirtc"};

    EXPECT_TRUE(sut.rtcValid());
}

TEST_F(SystemTimeHandlerTest, TimerIsArmedToBeCancelledOnly)
{
    EXPECT_EQ(sut.startSetClockDetection(), 0);

    EXPECT_THAT(timerfdCreateDouble.calls(), ElementsAre(std::make_tuple(CLOCK_REALTIME, TFD_NONBLOCK)));
    ASSERT_EQ(timerfdSettimeDouble.count(), 1U);
    auto const [descriptor, flags, spec, before] = timerfdSettimeDouble.calls()[0];
    EXPECT_EQ(descriptor, timer);
    EXPECT_EQ(flags, TFD_TIMER_ABSTIME | TFD_TIMER_CANCEL_ON_SET);
    EXPECT_EQ(before, nullptr);
    EXPECT_EQ(armedWith.it_value.tv_sec, 2147483647);
    EXPECT_EQ(armedWith.it_value.tv_nsec, 0);
    EXPECT_EQ(armedWith.it_interval.tv_sec, 0);
    EXPECT_EQ(armedWith.it_interval.tv_nsec, 0);
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(SystemTimeHandlerTest, TimerThatCannotBeMadeGivesTheNegatedErrnoWhateverLoggingDoes)
{
    timerfdCreateDouble.failCall(1, -1, EMFILE);
    letLoggingChangeErrno();
    std::string const text = "error creating timer to check for system time updates. errno 24 (Too many open files).";
    expectLine(Severity::Error, text);

    EXPECT_EQ(sut.startSetClockDetection(), -EMFILE);

    EXPECT_THAT(log.lines(), ElementsAre(isLine(Severity::Error, "SystemTime", text)));
    EXPECT_EQ(timerfdSettimeDouble.count(), 0U);
}

TEST_F(SystemTimeHandlerTest, TimerThatCannotBeArmedGivesOne)
{
    timerfdSettimeDouble.failCall(1, -1, EINVAL);

    EXPECT_EQ(sut.startSetClockDetection(), 1);

    EXPECT_THAT(log.lines(), IsEmpty());
    EXPECT_EQ(closeDouble.count(), 0U);
}

TEST_F(SystemTimeHandlerTest, SynchronisedClockTouchesNeitherClockDevicesNorTimer)
{
    kernelStatus = 0;

    sut.initialize();

    EXPECT_TRUE(sut.hasAbsoluteTime());
    EXPECT_THAT(log.lines(), ElementsAre(isLine(Severity::Debug, "SystemTime", "Clock is synced."),
                                         isLine(Severity::Info, "SystemTime",
                                                "System clock is valid. There will be no further time checks.")));
    EXPECT_EQ(statDouble.count(), 0U);
    EXPECT_EQ(timerfdCreateDouble.count(), 0U);
    EXPECT_EQ(manager->registered, 0);
}

TEST_F(SystemTimeHandlerTest, AgreeingClockDeviceMakesTheTimerUnnecessary)
{
    devices = {"/dev/rtc0"};

    sut.initialize();

    EXPECT_TRUE(sut.hasAbsoluteTime());
    EXPECT_EQ(
        log.count(isLine(Severity::Info, "SystemTime", "System clock is valid. There will be no further time checks.")),
        1U);
    EXPECT_EQ(timerfdCreateDouble.count(), 0U);
    EXPECT_EQ(manager->registered, 0);
}

TEST_F(SystemTimeHandlerTest, DoubtfulClockIsPolledEverySixtySeconds)
{
    sut.initialize();

    EXPECT_FALSE(sut.hasAbsoluteTime());
    EXPECT_EQ(timerfdSettimeDouble.count(), 1U);
    EXPECT_EQ(manager->registered, 1);
    EXPECT_EQ(manager->period.count(), 60.0);
    EXPECT_EQ(manager->destroyed, 0);
    EXPECT_THAT(log.lines(), SizeIs(6)); // the kernel's and those of five absent devices
}

TEST_F(SystemTimeHandlerTest, HandlerGivesUpWithoutATimer)
{
    timerfdCreateDouble.failCall(1, -1, EMFILE);
    letLoggingChangeErrno();
    std::string const text = "Failed to start a timer to detect when the clock is set. errno 24 (Too many open files).";
    expectLine(Severity::Error,
               "error creating timer to check for system time updates. errno 24 (Too many open files).");
    expectLine(Severity::Error, text);

    sut.initialize();

    EXPECT_FALSE(sut.hasAbsoluteTime());
    EXPECT_EQ(manager->registered, 0);
    EXPECT_EQ(log.lines().back(), (LogLine{Severity::Error, "SystemTime", text}));
}

TEST_F(SystemTimeHandlerTest, HandlerGivesUpWhenTheTimerCannotBeArmed)
{
    timerfdSettimeDouble.failCall(1, -1, ECANCELED);
    letLoggingChangeErrno();
    std::string const text = "Failed to start a timer to detect when the clock is set. errno 125 (Operation canceled).";
    expectLine(Severity::Error, text);

    sut.initialize();

    EXPECT_FALSE(sut.hasAbsoluteTime());
    EXPECT_EQ(manager->registered, 0);
    EXPECT_EQ(closeDouble.count(), 0U);
    EXPECT_EQ(log.count(isLine(Severity::Error, "SystemTime", text)), 1U);
}

TEST_F(SystemTimeHandlerTest, RefusalOfTheManagerReachesTheCaller)
{
    manager->duringAdd = [] { throw std::bad_weak_ptr(); };

    EXPECT_THROW(sut.initialize(), std::bad_weak_ptr);

    EXPECT_FALSE(sut.hasAbsoluteTime());
}

TEST_F(SystemTimeHandlerTest, SecondRegistrationDestroysTheFirstToken)
{
    sut.initialize();

    sut.initialize();

    EXPECT_EQ(manager->registered, 2);
    EXPECT_EQ(manager->destroyed, 1);
}

TEST_F(SystemTimeHandlerTest, RunningTimerKeepsThePollingUp)
{
    sut.initialize();
    log.clear();

    manager->function();
    manager->function();

    EXPECT_FALSE(sut.hasAbsoluteTime());
    EXPECT_EQ(manager->destroyed, 0);
    EXPECT_EQ(closeDouble.count(), 0U);
    EXPECT_EQ(readDouble.count(), 2U);
    EXPECT_EQ(std::get<0>(readDouble.calls()[0]), timer);
    EXPECT_EQ(std::get<2>(readDouble.calls()[0]), 10U);
    EXPECT_EQ(log.linesOf("SystemTime").back(),
              (LogLine{Severity::Trace, "SystemTime", "Timer still running: Time has not been set yet."}));
}

TEST_F(SystemTimeHandlerTest, UnexpectedExpiryIsLoggedWithAllTenBytesAndPollingGoesOn)
{
    readDouble.replace(
        [](int, void* buffer, size_t)
        {
            std::memcpy(buffer, "0123456789", 10);
            return ssize_t{10};
        });
    std::string const text = "Reading timer file descriptor succeeded unexpectedly: 0123456789";
    expectLine(Severity::Error, text);
    sut.initialize();

    manager->function();

    EXPECT_FALSE(sut.hasAbsoluteTime());
    EXPECT_EQ(manager->destroyed, 0);
    EXPECT_EQ(closeDouble.count(), 0U);
    EXPECT_EQ(log.linesOf("SystemTime").back(), (LogLine{Severity::Error, "SystemTime", text}));
}

TEST_F(SystemTimeHandlerTest, SetClockIsLoggedThenBelievedThenClosesTheTimerThenEndsPolling)
{
    sut.initialize();
    log.clear();
    letReadFail(ECANCELED);
    std::vector<bool> believed;
    log.onLine(
        [&](LogLine const& line)
        {
            if (line.severity == Severity::Info)
            {
                events.push_back(line.text);
                believed.push_back(sut.hasAbsoluteTime());
            }
        });
    closeDouble.replace(
        [&](int descriptor)
        {
            events.push_back("close " + std::to_string(descriptor));
            believed.push_back(sut.hasAbsoluteTime());
            return 0;
        });
    manager->onTokenDestruction = [this] { events.emplace_back("token"); };

    manager->function();

    EXPECT_TRUE(sut.hasAbsoluteTime());
    EXPECT_THAT(events, ElementsAre("Clock time was set.", "close 4711", "token"));
    EXPECT_THAT(believed, ElementsAre(false, true));
    EXPECT_EQ(manager->destroyed, 1);
}

TEST_F(SystemTimeHandlerTest, UnreadableTimerIsLoggedThenEndsPollingThenIsClosed)
{
    std::string const text = "Error accessing clock set timer: Stop polling. errno 5 (Input/output error).";
    expectLine(Severity::Error, text);
    sut.initialize();
    letReadFail(EIO);
    log.onLine(
        [this](LogLine const& line)
        {
            errno = 0;
            if (line.severity == Severity::Error)
            {
                events.push_back(line.text);
            }
        });
    manager->onTokenDestruction = [this] { events.emplace_back("token"); };

    manager->function();

    EXPECT_FALSE(sut.hasAbsoluteTime());
    EXPECT_THAT(events, ElementsAre(text, "token", "close 4711"));
}

TEST_F(SystemTimeHandlerTest, InterruptedReadIsAnErrorLikeAnyOther)
{
    std::string const text = "Error accessing clock set timer: Stop polling. errno 4 (Interrupted system call).";
    expectLine(Severity::Error, text);
    sut.initialize();
    letReadFail(EINTR);

    manager->function();

    EXPECT_EQ(manager->destroyed, 1);
    EXPECT_THAT(events, ElementsAre("close 4711"));
    EXPECT_EQ(readDouble.count(), 1U);
    EXPECT_EQ(log.linesOf("SystemTime").back(), (LogLine{Severity::Error, "SystemTime", text}));
}

TEST_F(SystemTimeHandlerTest, UnreadableTimerDoesNotTakeBackTheTrust)
{
    expectLine(Severity::Error, "Error accessing clock set timer: Stop polling. errno 5 (Input/output error).");
    sut.initialize();
    kernelStatus = 0;
    letReadFail(EIO);

    manager->function();

    EXPECT_TRUE(sut.hasAbsoluteTime());
    EXPECT_EQ(manager->destroyed, 1);
    EXPECT_THAT(events, ElementsAre("close 4711"));
}

TEST_F(SystemTimeHandlerTest, LaterSynchronisationEndsThePollingAndLeavesTheTimerOpen)
{
    sut.initialize();
    kernelStatus = 0;

    manager->function();

    EXPECT_TRUE(sut.hasAbsoluteTime());
    EXPECT_EQ(manager->destroyed, 1);
    EXPECT_EQ(closeDouble.count(), 0U);
    EXPECT_EQ(readDouble.count(), 1U);
}

TEST_F(SystemTimeHandlerTest, PollAfterTheTrustStillFindsTheTimerThatWasLeftOpen)
{
    sut.initialize();
    kernelStatus = 0;
    manager->function();

    manager->function();

    EXPECT_THAT(readDouble.calls(), ElementsAre(FieldsAre(timer, _, 10U), FieldsAre(timer, _, 10U)));
    EXPECT_EQ(log.linesOf("SystemTime").back(),
              (LogLine{Severity::Trace, "SystemTime", "Timer still running: Time has not been set yet."}));
    EXPECT_EQ(manager->destroyed, 1);
}

TEST_F(SystemTimeHandlerTest, TimerMayHaveTheDescriptorZero)
{
    timerUnderTest = 0;
    timerfdCreateDouble.replace([](int, int) { return 0; });
    letReadFail(ECANCELED);

    sut.initialize();
    ASSERT_EQ(manager->registered, 1);
    EXPECT_EQ(manager->destroyed, 0);
    manager->function();

    EXPECT_TRUE(sut.hasAbsoluteTime());
    EXPECT_THAT(events, ElementsAre("close 0"));
}

TEST_F(SystemTimeHandlerTest, ClockDeviceThatAgreesLaterEndsThePollingAndLeavesTheTimerOpen)
{
    sut.initialize();
    devices = {"/dev/efirtc"};

    manager->function();

    EXPECT_TRUE(sut.hasAbsoluteTime());
    EXPECT_EQ(manager->destroyed, 1);
    EXPECT_THAT(events, ElementsAre("close 4712")); // that of the device
}

TEST_F(SystemTimeHandlerTest, FirstPollBeforeAddReturnsMayReachTrust)
{
    manager->duringAdd = [this]
    {
        kernelStatus = 0;
        manager->function();
    };

    sut.initialize();

    EXPECT_TRUE(sut.hasAbsoluteTime());
    EXPECT_EQ(manager->destroyed, 1);
}

TEST_F(SystemTimeHandlerTest, FirstPollOnAnotherThreadBeforeAddReturnsMayReachTrust)
{
    manager->duringAdd = [this]
    {
        kernelStatus = 0;
        std::thread(manager->function).join();
    };

    sut.initialize();

    EXPECT_TRUE(sut.hasAbsoluteTime());
    EXPECT_EQ(manager->destroyed, 1);
}

TEST_F(SystemTimeHandlerTest, FirstPollBeforeAddReturnsMayGiveUp)
{
    expectLine(Severity::Error, "Error accessing clock set timer: Stop polling. errno 5 (Input/output error).");
    letReadFail(EIO);
    manager->duringAdd = [this] { manager->function(); };

    sut.initialize();

    EXPECT_FALSE(sut.hasAbsoluteTime());
    EXPECT_EQ(manager->destroyed, 1);
    EXPECT_THAT(events, ElementsAre("close 4711"));
}

TEST_F(SystemTimeHandlerTest, DestructorLetsGoOfTheManagerAndEndsPollingButLeavesTheTimerOpen)
{
    auto handler = std::make_unique<Handler>(manager);
    handler->initialize();
    auto const owners = manager.use_count();
    auto ownersAtTheToken = owners;
    manager->onTokenDestruction = [&] { ownersAtTheToken = manager.use_count(); };

    handler.reset();

    EXPECT_EQ(manager->destroyed, 1);
    EXPECT_EQ(ownersAtTheToken, owners - 1);
    EXPECT_EQ(closeDouble.count(), 0U);
}

TEST_F(SystemTimeHandlerTest, PollThatEndsWhileTheHandlerIsDestroyedDoesNotTouchTheHandlerAnyMore)
{
    expectLine(Severity::Error, "Error accessing clock set timer: Stop polling. errno 5 (Input/output error).");
    auto handler = std::make_unique<SystemTimeHandler>(manager);
    handler->initialize();
    letReadFail(EIO);
    std::promise<void> tokenTaken;
    std::promise<void> handlerGone;
    manager->onTokenDestruction = [&]
    {
        tokenTaken.set_value();
        EXPECT_EQ(handlerGone.get_future().wait_for(10s), std::future_status::ready);
    };

    std::thread poll(manager->function);
    auto const taken = tokenTaken.get_future().wait_for(10s);
    handler.reset();
    handlerGone.set_value();
    poll.join();

    EXPECT_EQ(taken, std::future_status::ready);
    EXPECT_EQ(manager->destroyed, 1);
    EXPECT_THAT(events, ElementsAre("close 4711"));
}

/// Runs on a real manager, which polls only when the test allows it.
class DrivenManager : public PeriodicCallerManagerIfc
{
public:
    DrivenManager(PeriodicCallerManager::ExecutionStrategy strategy)
        : real(std::make_shared<PeriodicCallerManager>(strategy, "driven"))
    {
        SchedulerSleep::await();
        idle = real->add([this] { ++passes; }, 100ms);
        EXPECT_TRUE(waitForPasses(1));
    }

    DrivenManager(DrivenManager const&) = delete;
    DrivenManager& operator=(DrivenManager const&) = delete;

    ~DrivenManager() override
    {
        SchedulerSleep::await(50ms);
        idle.reset();
        SchedulerSleep::await();
    }

    std::unique_ptr<PeriodicCallerManagerTokenIfc> add(std::function<void()> function,
                                                       std::chrono::duration<double> period) override
    {
        EXPECT_EQ(period.count(), 60.0);
        auto token = real->add(
            [this, function = std::move(function)]
            {
                if (allowed.exchange(false))
                {
                    function();
                    ++polls;
                }
            },
            5ms);
        if (holdAddUntilPolled)
        {
            allowed = true;
            EXPECT_TRUE(waitForPolls(1));
        }
        ++tokens;
        return std::make_unique<Token>(std::move(token), [this] { --tokens; });
    }

    bool poll()
    {
        int const before = polls;
        allowed = true;
        return waitForPolls(before + 1);
    }

    bool waitForPolls(int count) const
    {
        return waitFor([&] { return polls >= count; });
    }

    /// The scheduler is alive and has been through its list that often.
    bool waitForPasses(int count) const
    {
        int const before = passes;
        return waitFor([&] { return passes >= before + count; });
    }

    std::atomic<bool> allowed{false};
    std::atomic<bool> holdAddUntilPolled{false};
    std::atomic<int> passes{0};
    std::atomic<int> polls{0};
    std::atomic<int> tokens{0};
    std::shared_ptr<PeriodicCallerManager> real;
    std::unique_ptr<PeriodicCallerManagerTokenIfc> idle;
};

class SystemTimeHandlerOnManagerTest : public SystemTimeHandlerTest,
                                       public testing::WithParamInterface<PeriodicCallerManager::ExecutionStrategy>
{
protected:
    SystemTimeHandlerOnManagerTest()
    {
        // Should the end of the idle function be held up until it is due again.
        log.expect(isLine(Severity::Warning, "Halden::Tavro::Utils::PcmItem",
                          std::string("Execution of PCM item is forbidden")));
    }

    std::shared_ptr<DrivenManager> driven = std::make_shared<DrivenManager>(GetParam());
    std::unique_ptr<SystemTimeHandler> handler = std::make_unique<SystemTimeHandler>(driven);
};

TEST_P(SystemTimeHandlerOnManagerTest, PollDestroysItsOwnTokenAndIsNeverRunAgain)
{
    handler->initialize();
    ASSERT_TRUE(driven->poll());
    ASSERT_EQ(driven->tokens, 1);
    ASSERT_FALSE(handler->hasAbsoluteTime());
    letReadFail(ECANCELED);

    ASSERT_TRUE(driven->poll());
    driven->allowed = true;
    ASSERT_TRUE(driven->waitForPasses(3));

    EXPECT_TRUE(handler->hasAbsoluteTime());
    EXPECT_EQ(driven->tokens, 0);
    EXPECT_EQ(driven->polls, 2);
    EXPECT_THAT(events, ElementsAre("close 4711"));
}

TEST_P(SystemTimeHandlerOnManagerTest, TokenDoesNotSurviveAFirstPollThatWasFasterThanAdd)
{
    driven->holdAddUntilPolled = true;
    letReadFail(ECANCELED);

    handler->initialize();
    driven->allowed = true;
    ASSERT_TRUE(driven->waitForPasses(3));

    EXPECT_TRUE(handler->hasAbsoluteTime());
    EXPECT_EQ(driven->tokens, 0);
    EXPECT_EQ(driven->polls, 1);
}

TEST_P(SystemTimeHandlerOnManagerTest, DestructorWaitsForAPollThatReachesTrustMeanwhile)
{
    handler->initialize();
    std::promise<void> polling;
    std::promise<void> goOn;
    std::shared_future<void> const released = goOn.get_future().share();
    adjtimexDouble.replace(
        [&polling, released](timex* query)
        {
            polling.set_value();
            EXPECT_EQ(released.wait_for(10s), std::future_status::ready);
            query->status = 0;
            return 0;
        });
    driven->allowed = true;
    ASSERT_EQ(polling.get_future().wait_for(10s), std::future_status::ready);

    std::thread destroyer([this] { handler.reset(); });
    EXPECT_TRUE(waitFor([this] { return driven->tokens == 0; }));
    EXPECT_EQ(driven->polls, 0);
    goOn.set_value();
    destroyer.join();

    EXPECT_EQ(log.count(isLine(Severity::Debug, "SystemTime", "Clock is synced.")), 1U);
}

TEST_P(SystemTimeHandlerOnManagerTest, SettingTheRealClockIsSeenThroughTheRealTimer)
{
    timerfdCreateDouble.replace(
        [](int clock, int flags)
        {
            int const real = timerfdCreateDouble.passOn(clock, flags);
            timerUnderTest = real;
            return real;
        });
    timerfdSettimeDouble.replace(nullptr);
    readDouble.replace(nullptr);
    closeDouble.replace(nullptr);
    auto const before = TestSupport::openDescriptors();
    handler->initialize();
    ASSERT_TRUE(driven->poll());
    ASSERT_FALSE(handler->hasAbsoluteTime());
    // Threads of the pool that start meanwhile may look at files of their own.
    ASSERT_TRUE(waitFor([&] { return TestSupport::openDescriptors() == before + 1; }));

    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    if (clock_settime(CLOCK_REALTIME, &now) != 0)
    {
        GTEST_SKIP() << "not allowed to set the clock: " << strerror(errno);
    }
    ASSERT_TRUE(driven->poll());

    EXPECT_TRUE(handler->hasAbsoluteTime());
    EXPECT_EQ(log.count(isLine(Severity::Info, "SystemTime", "Clock time was set.")), 1U);
    EXPECT_EQ(driven->tokens, 0);
    EXPECT_TRUE(waitFor([&] { return TestSupport::openDescriptors() == before; }));
}

INSTANTIATE_TEST_SUITE_P(Strategies, SystemTimeHandlerOnManagerTest,
                         testing::Values(PeriodicCallerManager::ExecutionStrategy::ThreadPool,
                                         PeriodicCallerManager::ExecutionStrategy::Sequential),
                         [](auto const& strategy) {
                             return strategy.param == PeriodicCallerManager::ExecutionStrategy::ThreadPool
                                        ? "ThreadPool"
                                        : "Sequential";
                         });

}

}
