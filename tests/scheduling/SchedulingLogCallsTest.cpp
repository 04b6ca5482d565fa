#include "scheduling/ManagerTest.h"
#include "scheduling/SchedulerSleep.h"

#include <log/Logger.h>
#include <utils/FileToString.h>
#include <utils/PcmExecutor.h>
#include <utils/PcmItem.h>
#include <utils/PeriodicCaller.h>

#include <gmock/gmock.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Halden::Tavro::TestSupport
{

struct LogCall
{
    Log::Severity severity;
    std::string format;
    bool hasFunction;
};

struct LoggerMade
{
    std::string name;
    std::string unused;
    bool hasDefaultSink;
    long owners;
};

/// What has reached the logging library.
struct Calls
{
    std::mutex mutex;
    std::vector<LogCall> logCalls;
    std::vector<LoggerMade> loggers;
};

Calls& calls()
{
    static Calls all;
    return all;
}

void add(Log::Severity severity, std::string_view format, std::function<std::string()> const& function)
{
    std::lock_guard const lock(calls().mutex);
    calls().logCalls.push_back({severity, std::string(format), function != nullptr});
}

}

// The program's own, which the linker prefers to the logging library's, also in the libraries it uses.
namespace Halden::Tavro::Log
{

Logger::Logger(std::string name, std::string unused, std::shared_ptr<LoggerImplIfc> impl)
    : name(std::move(name))
    , impl(std::move(impl))
{
    bool const isDefault = dynamic_cast<LoggerImpl*>(this->impl.get()) != nullptr;
    std::lock_guard const lock(TestSupport::calls().mutex);
    TestSupport::calls().loggers.push_back({this->name, std::move(unused), isDefault, this->impl.use_count()});
}

void Logger::tavroDoLog(Severity severity, std::string_view const& format, std::function<std::string()> const& unused,
                        ...) const
{
    TestSupport::add(severity, format, unused);
}

void tavroDoLog(Severity severity, std::string_view const& format, std::function<std::string()> const& unused, ...)
{
    TestSupport::add(severity, format, unused);
}

}

namespace Halden::Tavro::Utils
{

namespace
{

using namespace std::chrono_literals;
using namespace testing;
using namespace TestSupport;

class SchedulingLogCallsTest : public ManagerTest
{
protected:
    SchedulingLogCallsTest()
    {
        calls().logCalls.clear();
        calls().loggers.clear();
    }

    static std::vector<LogCall> logCalls()
    {
        std::lock_guard const lock(calls().mutex);
        return calls().logCalls;
    }

    /// The formats logged at Trace by a manager that runs one function once and has its next due time moved.
    static std::vector<std::string> formatsAtTrace()
    {
        calls().logCalls.clear();
        {
            auto const sut = makeAsleep();
            Token const token = sut->add([] {}, longPeriod);
            SchedulerSleep::await();
        }
        std::vector<std::string> formats;
        for (LogCall const& call : logCalls())
        {
            if (call.severity == Log::Severity::Trace)
            {
                formats.push_back(call.format);
            }
        }
        return formats;
    }
};

// The logging library at work on a device may make use of what its stand-in ignores.

TEST_F(SchedulingLogCallsTest, LoggersGetAnEmptySecondTextAndADefaultSinkThatNobodyElseHolds)
{
    PcmItem const item({}, 1ms);
    auto const manager = makeAsleep(Strategy::Sequential);
    PcmExecutorThreadPool const executor;
    PeriodicCaller const caller(1ms, "led", {});

    std::vector<std::string> names;
    for (LoggerMade const& made : calls().loggers)
    {
        names.push_back(made.name);
        EXPECT_EQ(made.unused, "") << made.name;
        EXPECT_TRUE(made.hasDefaultSink) << made.name;
        EXPECT_EQ(made.owners, 1) << made.name;
    }
    EXPECT_THAT(names,
                ElementsAre("Halden::Tavro::Utils::PcmItem", logger, "Halden::Tavro::Utils::PcmExecutorSequential",
                            "Halden::Tavro::Utils::PcmExecutorThreadPool",
                            "Halden::Tavro::Utils::PeriodicCaller 'led'"));
}

TEST_F(SchedulingLogCallsTest, LogCallsHaveAnEmptyFunction)
{
    PcmItem({}, 1ms).execute();
    EXPECT_THROW(fileToString("/no/such/file"), std::runtime_error);

    EXPECT_THAT(logCalls(), AllOf(SizeIs(Ge(2)), Each(Field(&LogCall::hasFunction, false))));
}

TEST_F(SchedulingLogCallsTest, OnlyCheapTextsReachTheLoggingLibraryWhileTraceIsDisabled)
{
    auto const everything = formatsAtTrace();
    Log::LoggerProxy::instance().setThreshold(Log::Severity::Debug);
    auto const cheap = formatsAtTrace();

    EXPECT_EQ(std::count(everything.begin(), everything.end(), "%s"), 3);
    EXPECT_THAT(cheap, Not(Contains("%s")));
    EXPECT_THAT(cheap, IsSupersetOf({"Adding item with period (%lu)ms", "Item added. Having (%lu) now",
                                     "dueInPeriod: (%lu) items", "executing %u items sequentialy", "+remove"}));
}

}

}
