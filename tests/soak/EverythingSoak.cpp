// All that services do, at once and again and again, beside a whole service: by default for a second, by environment
// variables for any time.
//     HALDEN_SOAK_SECONDS  how long (1)
//     HALDEN_SOAK_SAMPLES  the file that gets what both processes hold, as a table of comma-separated values

#include "support/CallDouble.h"
#include "support/ChildProcess.h"
#include "support/ClockTime.h"
#include "support/LogCapture.h"
#include "support/NetworkNamespace.h"
#include "support/Resources.h"
#include "support/SystemClockLock.h"
#include "support/WaitFor.h"

#include <utils/Execute.h>
#include <utils/IpAddress.h>
#include <utils/LocalIps.h>
#include <utils/PeriodicCallerManager.h>
#include <utils/Route.h>
#include <utils/SystemTimeHandler.h>
#include <utils/XmlHelper.h>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <iterator>
#include <memory>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace Halden::Tavro::Utils
{

namespace
{

using namespace std::chrono_literals;
using namespace TestSupport;

using Strategy = PeriodicCallerManager::ExecutionStrategy;
using Token = std::unique_ptr<PeriodicCallerManagerTokenIfc>;

/// The timer that tells of a step of the clock, of the thread that looks at one.
thread_local int lastTimer = -1;
thread_local bool clockWasSet = false;

CallDouble<int(int, int)> timerfdCreateDouble{"timerfd_create"};
CallDouble<ssize_t(int, void*, std::size_t)> readDouble{"read"};

}

// Neither keeps a record of its calls, which would be what grows.
extern "C"
{

    int timerfd_create(int clock, int flags) noexcept
    {
        lastTimer = timerfdCreateDouble.passOn(clock, flags);
        return lastTimer;
    }

    ssize_t read(int descriptor, void* buffer, std::size_t size)
    {
        if (clockWasSet && descriptor == lastTimer)
        {
            errno = ECANCELED;
            return -1;
        }
        return readDouble.passOn(descriptor, buffer, size);
    }
}

namespace
{

/// What the system tells of a process.
struct Figures
{
    std::size_t descriptors{0};
    std::size_t threads{0};
    std::size_t memoryInKiB{0};
    double processorSeconds{0};
};

Figures figuresOf(pid_t process)
{
    std::string const directory = "/proc/" + std::to_string(process);
    Figures figures;
    figures.descriptors = entriesOf(directory + "/fd");
    figures.threads = entriesOf(directory + "/task");
    std::size_t size = 0;
    std::size_t resident = 0;
    std::ifstream(directory + "/statm") >> size >> resident;
    figures.memoryInKiB = resident * static_cast<std::size_t>(sysconf(_SC_PAGESIZE)) / 1024;

    std::ifstream file(directory + "/stat");
    std::string text;
    std::getline(file, text);
    std::istringstream fields(text.substr(text.rfind(')') + 2)); // the third and those behind it
    std::vector<std::string> const values{std::istream_iterator<std::string>(fields), {}};
    double const ticks = std::stod(values.at(11)) + std::stod(values.at(12));
    figures.processorSeconds = ticks / static_cast<double>(sysconf(_SC_CLK_TCK));
    return figures;
}

double processorSeconds()
{
    return std::chrono::duration<double>(timeOf(CLOCK_PROCESS_CPUTIME_ID)).count();
}

/// The example that does a whole service's work, from construction to destruction.
class Service
{
public:
    Service()
        : child(startChild(
              [] {
                  return becomeProgram(DEVICE_SERVICE, {"--seconds", "86400", "--severity", "critical"});
              }))
    {
        fcntl(child.output, F_SETFL, O_NONBLOCK);
        // It shows a first state when all its threads are at work.
        EXPECT_TRUE(waitFor([this] { return take() && shown.find("pressure") != std::string::npos; }, 60s)) << shown;
    }

    Service(Service const&) = delete;
    Service& operator=(Service const&) = delete;

    ~Service()
    {
        kill(child.id, SIGTERM);
        int status = -1;
        EXPECT_TRUE(waitFor([&] { return take() && waitpid(child.id, &status, WNOHANG) == child.id; }, 60s));
        EXPECT_EQ(status, 0);
        close(child.output);
    }

    /// Makes room for what it shows next.
    bool take()
    {
        std::array<char, 4096> part{};
        while (true)
        {
            ssize_t const count = ::read(child.output, part.data(), part.size());
            if (count <= 0)
            {
                return true;
            }
            shown.append(part.data(), static_cast<std::size_t>(count));
            shown.erase(0, shown.size() - std::min<std::size_t>(shown.size(), 4096));
        }
    }

    Figures figures() const { return figuresOf(child.id); }

private:
    Child const child;
    std::string shown; // the last of it
};

/// A handler of the system time, with the poll that its manager would make.
class Clock : private virtual Log::Logger, public SystemTimeHandler
{
public:
    explicit Clock(std::shared_ptr<PeriodicCallerManagerIfc> manager)
        : Log::Logger("SystemTime", "", std::make_shared<Log::LoggerImpl>())
        , SystemTimeHandler(std::move(manager))
    {
    }

    using SystemTimeHandler::pollTimeStatus;
    using SystemTimeHandler::startSetClockDetection;
};

/// What there is as long as the work goes on.
class Household
{
public:
    Household()
        : pool(std::make_shared<PeriodicCallerManager>(Strategy::ThreadPool, "pool"))
        , sequence(std::make_shared<PeriodicCallerManager>(Strategy::Sequential, "sequence"))
        , monitor([this](IpAddress const& ip) { announced += ip.isLoopback() ? 1 : 0; },
                  [this](IpAddress const& ip) { lost += ip.isLoopback() ? 1 : 0; }, {})
    {
        for (auto const& manager : {pool, sequence})
        {
            for (int i = 0; i < 10; ++i)
            {
                steady.push_back(manager->add([this] { ++calls; }, 10ms));
            }
        }
    }

    /// All the kinds of work, each of which may be done at any time beside the others.
    std::vector<std::function<void()>> works()
    {
        return {[this] { addAndRemove(*pool); }, [this] { addAndRemove(*sequence); }, [this] { setClock(); },
                [] { runChildren(); },           [this] { takeAddressAway(); },       [] { validate(); }};
    }

private:
    static void addAndRemove(PeriodicCallerManager& manager)
    {
        std::promise<void> called;
        std::atomic<bool> isFirst{true};
        Token token = manager.add(
            [&]
            {
                if (isFirst.exchange(false))
                {
                    called.set_value();
                }
            },
            1ms);
        EXPECT_TRUE(becomesReady(called.get_future(), 60s));
        token = manager.add([] {}, 1h); // the first one goes only now
    }

    void setClock() const
    {
        SystemClockLock const lock;
        Clock clock(pool);
        EXPECT_EQ(clock.startSetClockDetection(), 0);
        clock.pollTimeStatus();
        clockWasSet = true;
        clock.pollTimeStatus();
        clockWasSet = false;
        EXPECT_TRUE(clock.hasAbsoluteTime());
    }

    static void runChildren()
    {
        std::string const input(100000, 'i');
        auto const echo = execute("/bin/cat", {}, {}, std::istringstream(input), 60s);
        EXPECT_TRUE(echo.exitCode == 0 && echo.output == input);
        EXPECT_EQ(execute("/bin/sh", {"-c", "exit $N"}, {{"N", "3"}}, std::istringstream(), 60s).exitCode, 3);
        EXPECT_EQ(execute("/bin/sleep", {"60"}, {}, std::istringstream(), 1ms).termSignal, SIGKILL);
    }

    void takeAddressAway()
    {
        std::string const address = "127.0.0.2";
        int const announcedBefore = announced;
        int const lostBefore = lost;
        NetworkControl control;
        control.addAddress("lo", address);
        EXPECT_TRUE(waitFor([&] { return announced == announcedBefore + 1; }, 60s));
        EXPECT_EQ(Ip::networkIfcNameForIp(IpAddress::fromString(address)), "lo");
        EXPECT_EQ(Ip::getLocalIpForRemote(address, 60), address);
        control.removeAddress("lo", address);
        EXPECT_TRUE(waitFor([&] { return lost == lostBefore + 1; }, 60s));
        LocalIps const another({}, {}, {});
    }

    static void validate()
    {
        XmlHelper xml;
        xml.validateAgainstXSD(DESCRIPTION, SCHEMA);
        EXPECT_EQ(xml.singleNodeText(DESCRIPTION, "/upnp:root/upnp:device/upnp:friendlyName").empty(), false);
        EXPECT_THROW(xml.validateAgainstXSD(std::stringstream("<root/>"), SCHEMA), std::runtime_error);
    }

    std::atomic<long> calls{0};
    std::atomic<int> announced{0};
    std::atomic<int> lost{0};
    std::shared_ptr<PeriodicCallerManager> const pool;
    std::shared_ptr<PeriodicCallerManager> const sequence;
    LocalIps monitor;
    std::vector<Token> steady; // the first to go
};

/// Writes what this process and the service hold into a file, a row at a time.
class Samples
{
public:
    explicit Samples(char const* path)
        : file(path == nullptr ? "" : path)
    {
        file << "seconds,descriptors,threads,memory_kib,heap_kib,processor_seconds,service_descriptors,"
                "service_threads,service_memory_kib,service_processor_seconds\n";
    }

    void take(std::chrono::duration<double> time, Service const& service)
    {
        write(time.count(), figuresOf(getpid()), ',');
        file << heapBytes() / 1024 << ',' << processorSeconds();
        Figures const other = service.figures();
        file << ',' << other.descriptors << ',' << other.threads << ',' << other.memoryInKiB << ','
             << other.processorSeconds << std::endl;
    }

private:
    void write(double time, Figures const& figures, char separator)
    {
        file << time << separator << figures.descriptors << separator << figures.threads << separator
             << figures.memoryInKiB << separator;
    }

    std::ofstream file;
};

/// The processor time of this process while nothing but the steady functions go on.
double usedAtRest(std::chrono::milliseconds duration)
{
    double const before = processorSeconds();
    std::this_thread::sleep_for(duration);
    return processorSeconds() - before;
}

/// Each kind of work at least once, and until the time is up.
void workFor(std::chrono::seconds duration, char const* samplesPath)
{
    Service service;
    Household household;
    Samples samples(samplesPath);
    auto const rest = std::clamp<std::chrono::milliseconds>(duration / 20, 200ms, 5s);
    double const atFirst = usedAtRest(rest);
    Figures const serviceBefore = service.figures();

    auto const begin = std::chrono::steady_clock::now();
    std::vector<std::thread> workers;
    for (auto const& work : household.works())
    {
        workers.emplace_back(
            [&, work]
            {
                do
                {
                    work();
                } while (std::chrono::steady_clock::now() < begin + duration);
            });
    }
    // A graph has some 300 points, and no more than ten a second.
    auto const pause = std::max<std::chrono::milliseconds>(100ms, duration / 300);
    for (auto next = begin; next <= begin + duration; next += pause)
    {
        std::this_thread::sleep_until(next);
        service.take();
        samples.take(std::chrono::steady_clock::now() - begin, service);
    }
    for (auto& worker : workers)
    {
        worker.join();
    }

    double const atLast = usedAtRest(rest);
    samples.take(std::chrono::steady_clock::now() - begin, service);
    EXPECT_LT(atLast, 2 * atFirst + 0.05) << "at rest it takes more than before";
    EXPECT_EQ(service.figures().descriptors, serviceBefore.descriptors);
    EXPECT_EQ(service.figures().threads, serviceBefore.threads);
}

TEST(EverythingSoakTest, LeavesNothingBehindWhateverGoesOnAtOnce)
{
    if (auto const refusal = networkNamespaceRefusal())
    {
        GTEST_SKIP() << *refusal;
    }
    LogCapture const log(Log::Severity::Critical); // each killed child and each wrong document is logged
    char const* const seconds = std::getenv("HALDEN_SOAK_SECONDS"); // NOLINT(concurrency-mt-unsafe): before any thread
    inNetworkNamespace(
        [&]
        {
            workFor(0s, nullptr); // what is made with the first use stays
            Holdings const before = holdings();

            workFor(std::chrono::seconds(seconds == nullptr ? 1 : std::stoi(seconds)),
                    std::getenv("HALDEN_SOAK_SAMPLES")); // NOLINT(concurrency-mt-unsafe): as above

            EXPECT_TRUE(isBackTo(before));
        });
}

}

}
