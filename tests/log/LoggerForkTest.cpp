// Log calls in a child that was forked while other threads were logging.

#include <log/Logger.h>
#include <log/SpdlogSink.h>

#include "support/NullSink.h"

#include <gtest/gtest.h>
#include <spdlog/logger.h>
#include <spdlog/sinks/null_sink.h>

#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <memory>
#include <thread>
#include <vector>

namespace Halden::Tavro::Log
{

namespace
{

using TestSupport::NullSink;

/// Forks again and again while some threads run a function again and again.
///
/// @return how many of the children could not log
int hungChildren(std::function<void()> const& function)
{
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    for (int i = 0; i < 2; ++i)
    {
        threads.emplace_back(
            [&]
            {
                while (!stop)
                {
                    function();
                }
            });
    }

    int hung = 0;
    for (int i = 0; i < 100 && hung == 0; ++i)
    {
        pid_t const child = fork();
        if (child == 0)
        {
            alarm(20);
            tavroDoLog(Severity::Info, "%s", {}, "in the child");
            _exit(0);
        }
        int status = 0;
        waitpid(child, &status, 0);
        hung += WIFEXITED(status) ? 0 : 1;
    }

    stop = true;
    for (auto& thread : threads)
    {
        thread.join();
    }
    return hung;
}

class LoggerForkTest : public testing::Test
{
protected:
    ~LoggerForkTest() override { LoggerProxy::instance().setSink(nullptr); }
};

TEST_F(LoggerForkTest, ChildLogsWhileOthersSetTheSink)
{
    auto const sink = std::make_shared<NullSink>();

    EXPECT_EQ(hungChildren([&sink] { LoggerProxy::instance().setSink(sink); }), 0);
}

TEST_F(LoggerForkTest, ChildLogsWhileOthersLogThroughSpdlog)
{
    auto const target = std::make_shared<spdlog::logger>("", std::make_shared<spdlog::sinks::null_sink_mt>());
    LoggerProxy::instance().setSink(std::make_shared<SpdlogSink>(target));

    EXPECT_EQ(hungChildren([] { tavroDoLog(Severity::Info, "text", {}); }), 0);
}

}

}
