#include "support/FailingCalls.h"

#include "support/NullSink.h"
#include "support/Resources.h"
#include "support/WaitFor.h"

#include <log/Logger.h>
#include <utils/testing/LogCapture.h>

#include <gtest/gtest.h>

#include <signal.h>

#include <algorithm>
#include <exception>
#include <memory>

namespace Halden::Tavro::TestSupport
{

namespace
{

/// More calls than any operation here makes.
constexpr std::size_t tooMany = 10'000;

/// For as long as it lives, everything is logged to nowhere.
class UnheardLog
{
public:
    UnheardLog() { Log::LoggerProxy::instance().setSink(std::make_shared<NullSink>()); }

private:
    Utils::Testing::LogCapture const before; // restores sink and threshold; it would keep the lines
};

std::size_t blockedSignals()
{
    sigset_t mask;
    pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    std::size_t count = 0;
    for (int number = 1; number < NSIG; ++number)
    {
        count += sigismember(&mask, number) == 1 ? 1U : 0U;
    }
    return count;
}

void addDifference(std::string& text, std::size_t now, std::size_t before, char const* what)
{
    if (now != before)
    {
        text += (text.empty() ? "" : ", ") + std::to_string(static_cast<long>(now - before)) + " " + what +
                (now - before == 1 ? "" : "s");
    }
}

/// One run of an operation, and what it leaves.
class Run
{
public:
    explicit Run(std::function<std::string()> const& afterwards)
        : afterwards(afterwards)
    {
    }

    /// @return whether the operation has succeeded
    bool of(std::function<void()> const& operation)
    {
        try
        {
            operation();
            return true;
        }
        catch (std::exception const& error)
        {
            reason.assign(error.what());
            return false;
        }
    }

    std::string left()
    {
        addWords();
        waitFor([this] { return runningThreads() <= before.threads; });
        Holdings const now = holdings();
        std::string text = words;
        addDifference(text, now.blocks, before.blocks, "block");
        addDifference(text, now.descriptors, before.descriptors, "descriptor");
        addDifference(text, std::max(now.threads, before.threads), before.threads, "thread");
        addDifference(text, blockedSignals(), signalsBefore, "blocked signal");
        return text;
    }

    std::string reason = withRoom(); // for which it has not

private:
    /// So that what is put into it is no block that the operation has left.
    static std::string withRoom()
    {
        std::string text;
        text.reserve(1000);
        return text;
    }

    void addWords()
    {
        std::string const said = afterwards();
        words.append(said);
    }

    std::function<std::string()> const& afterwards;
    std::string words = withRoom();
    std::size_t const signalsBefore = blockedSignals();
    Holdings const before = holdings();
};

void expectSuccess(std::function<void()> const& operation, std::function<std::string()> const& afterwards)
{
    Run run(afterwards);
    EXPECT_TRUE(run.of(operation)) << "without a failing call: " << run.reason;
    afterwards();
}

}

std::vector<std::string> leftByFailingCalls(std::vector<FailingCalls> const& kinds,
                                            std::function<void()> const& operation,
                                            std::function<std::string()> const& afterwards)
{
    UnheardLog const log;
    std::vector<std::string> left;
    for (auto const& kind : kinds)
    {
        SCOPED_TRACE(kind.name);
        expectSuccess(operation, afterwards); // which makes what is made only once
        bool hasFailed = true;
        for (std::size_t n = 1; hasFailed && n < tooMany && !testing::Test::HasFailure(); ++n)
        {
            SCOPED_TRACE(n);
            Run run(afterwards);
            kind.fail(n);
            bool const succeeded = run.of(operation);
            hasFailed = kind.stop();
            EXPECT_TRUE(succeeded || hasFailed) << run.reason;
            EXPECT_TRUE(hasFailed || n > 1) << "makes no such call";
            std::string const text = run.left();
            if (!text.empty() && hasFailed)
            {
                left.push_back(kind.name + " " + std::to_string(n) + ": " + text);
            }
            expectSuccess(operation, afterwards);
        }
        EXPECT_FALSE(hasFailed) << "makes too many";
    }
    return left;
}

}
