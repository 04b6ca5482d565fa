#include "scheduling/ManagerTest.h"
#include "scheduling/SchedulerSleep.h"
#include "support/WaitFor.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace Halden::Tavro::Utils
{

namespace
{

using namespace std::chrono_literals;
using namespace testing;
using namespace TestSupport;

/// Keeps the texts, and calls a function while that of the first batch is being written. Holds no lock meanwhile, so
/// others may log.
class TextsBesideABatch : public Log::LoggerImplIfc
{
public:
    explicit TextsBesideABatch(std::function<void()> onBatch)
        : onBatch(std::move(onBatch))
    {
    }

    void write(Log::Record const& record) override
    {
        {
            std::lock_guard const lock(mutex);
            texts.emplace_back(record.text);
        }
        if (record.text.substr(0, 11) == "dueInPeriod" && !batchSeen.exchange(true))
        {
            onBatch();
        }
    }

    bool has(std::string const& text) const
    {
        std::lock_guard const lock(mutex);
        return std::find(texts.begin(), texts.end(), text) != texts.end();
    }

private:
    std::function<void()> const onBatch;
    std::atomic<bool> batchSeen{false};
    mutable std::mutex mutex;
    std::vector<std::string> texts; // guarded by mutex
};

using PeriodicCallerManagerLockTest = ManagerTest;

TEST_F(PeriodicCallerManagerLockTest, BatchAndRemovalAreLoggedUnderTheLockOfTheListAndThePeriodBeforeIt)
{
    auto const sut = makeAsleep();
    std::shared_ptr<TextsBesideABatch> texts;
    std::future<Token> adding;
    std::future<void> removing;
    bool isPeriodLogged = false;
    bool isAdditionLogged = false;
    bool isRemovalLogged = false;
    texts = std::make_shared<TextsBesideABatch>(
        [&]
        {
            adding = std::async(std::launch::async, [&sut] { return sut->add([] {}, sixYears); });
            removing = std::async(std::launch::async, [&sut] { sut->remove(nullptr); });
            isPeriodLogged = waitFor([&texts] { return texts->has(addingText(200'000'000'000)); });
            std::this_thread::sleep_for(100ms);
            isAdditionLogged = texts->has("Item added. Having (1) now");
            isRemovalLogged = texts->has("+remove");
        });
    auto const capture = Log::LoggerProxy::instance().setSink(texts);

    dueUntil(*sut, afterBoot(0s));
    Token token = adding.get();
    removing.get();
    Log::LoggerProxy::instance().setSink(capture);
    SchedulerSleep::await();

    EXPECT_TRUE(isPeriodLogged);
    EXPECT_FALSE(isAdditionLogged);
    EXPECT_FALSE(isRemovalLogged);
    EXPECT_TRUE(texts->has("+remove"));
    token.reset();
    SchedulerSleep::await();
}

}

}
