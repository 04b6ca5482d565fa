#include "scheduling/ManagerTest.h"

#include "scheduling/SchedulerSleep.h"
#include "support/WaitFor.h"

#include <algorithm>
#include <future>
#include <utility>

namespace Halden::Tavro::TestSupport
{

namespace
{

using namespace std::chrono_literals;

using Utils::PeriodicCallerManager;

/// Names the operations that derived classes reach. Managers are not made from it: its constructor and destructor would
/// set the type of an object on which the scheduler thread is at work already.
struct Opened : PeriodicCallerManager
{
    using PeriodicCallerManager::dueUntil;
    using PeriodicCallerManager::nextPcmDueTime;
    using PeriodicCallerManager::updateSchedulerNextDueTime;
};

}

std::chrono::milliseconds sinceBoot()
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now().time_since_epoch());
}

std::chrono::steady_clock::time_point afterBoot(std::chrono::steady_clock::duration time)
{
    return std::chrono::steady_clock::time_point(time);
}

std::vector<std::shared_ptr<Utils::PcmItemIfc>> dueUntil(PeriodicCallerManager& manager,
                                                         std::chrono::steady_clock::time_point until)
{
    return (manager.*&Opened::dueUntil)(until);
}

std::chrono::steady_clock::time_point nextPcmDueTime(PeriodicCallerManager& manager)
{
    return (manager.*&Opened::nextPcmDueTime)();
}

void updateSchedulerNextDueTime(PeriodicCallerManager& manager)
{
    (manager.*&Opened::updateSchedulerNextDueTime)();
}

testing::Matcher<LogLine const&> line(Log::Severity severity, testing::Matcher<std::string const&> const& text)
{
    return isLine(severity, logger, text);
}

testing::Matcher<LogLine const&> trace(testing::Matcher<std::string const&> const& text)
{
    return line(Log::Severity::Trace, text);
}

std::string addingText(long long periodInMs)
{
    return "Adding item with period (" + std::to_string(static_cast<unsigned long>(periodInMs)) + ")ms";
}

std::shared_ptr<PeriodicCallerManager> makeAsleep(Strategy strategy, std::string const& name)
{
    auto manager = std::make_shared<PeriodicCallerManager>(strategy, name);
    SchedulerSleep::await();
    return manager;
}

ManagerTest::ManagerTest()
{
    clock.goOn();
}

Token ManagerTest::addAsleep(PeriodicCallerManager& manager, std::function<void()> function,
                             std::chrono::duration<double> period)
{
    SchedulerSleep::await();
    return manager.add(std::move(function), period);
}

std::vector<LogLine> ManagerTest::firstLines(std::size_t count) const
{
    auto lines = log.linesOf(logger);
    lines.resize(std::min(lines.size(), count));
    return lines;
}

void ManagerTest::runTimes(int times, PeriodicCallerManager& manager, std::chrono::duration<double> period)
{
    int calls = 0;
    std::promise<Token> handed;
    std::promise<void> ended;
    auto const function = [&]
    {
        if (++calls == times)
        {
            handed.get_future().get().reset();
            ended.set_value();
        }
    };
    handed.set_value(manager.add(function, period));

    EXPECT_TRUE(becomesReady(ended.get_future(), 20s));
    SchedulerSleep::await();
}

void ManagerTest::end(Token& token)
{
    log.expect(forbidden); // should this thread be held up until the function is due again
    SchedulerSleep::await(50ms);
    token.reset();
    SchedulerSleep::await();
}

bool ManagerTest::hasBecome(std::atomic<int> const& calls, int count)
{
    return waitFor([&] { return calls >= count; });
}

}
