#pragma once

#include "scheduling/ThreadDoubles.h"
#include "support/LogCapture.h"

#include <utils/PcmExecutor.h>

#include <gmock/gmock.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <stdexcept>
#include <utility>
#include <vector>

/// What the tests of the executors share.
namespace Halden::Tavro::TestSupport
{

using Batch = std::vector<std::shared_ptr<Utils::PcmItemIfc>>;

// kept: the interface has no virtual destructor
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"

/// An item that lets the exceptions of its function out.
class ThrowingItem final : public Utils::PcmItemIfc
{
public:
    void execute() override
    {
        ++executions;
        throw std::runtime_error("out of the item");
    }
    bool isDueWithin(std::chrono::milliseconds /*within*/) const override { return true; }
    std::chrono::steady_clock::time_point nextDueTime() const override { return {}; }
    std::chrono::milliseconds period() const override { return std::chrono::milliseconds(1); }
    void forbidFurtherExecutions() override {}
    void waitEndOfExecutionIfAny() override {}

    std::atomic<int> executions{0};
};

#pragma GCC diagnostic pop

inline std::shared_ptr<Utils::PcmItemIfc> makeItem(std::function<void()> function)
{
    return std::make_shared<Utils::PcmItem>(std::move(function), std::chrono::milliseconds(1));
}

/// What an executor logs about a batch, down to the given severity.
inline std::vector<LogLine> linesAbout(Batch const& batch, Utils::PeriodicCallerManagerExecutorIfc& executor,
                                       Log::Severity mostVerbose = Log::Severity::Trace)
{
    LogCapture const log(mostVerbose);
    executor.execute(batch);
    return log.lines();
}

class ExecutorTest : public testing::Test
{
protected:
    ExecutorTest() { reset(); }
    ~ExecutorTest() override { reset(); }

    ExecutorTest(ExecutorTest const&) = delete;
    ExecutorTest& operator=(ExecutorTest const&) = delete;

private:
    static void reset()
    {
        pthreadCreate.reset();
        hardwareThreads = 2;
    }
};

}
