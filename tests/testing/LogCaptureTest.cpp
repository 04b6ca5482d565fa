#include <utils/testing/LogCaptureGmock.h>

#include "support/WaitFor.h"

#include <log/Logger.h>

#include <gmock/gmock.h>
#include <gtest/gtest-spi.h>

#include <chrono>
#include <future>
#include <sstream>
#include <thread>
#include <vector>

namespace Halden::Tavro::Utils::Testing
{

namespace
{

using namespace std::chrono_literals;
using namespace testing;
using Log::LoggerProxy;
using Log::Severity;
using TestSupport::becomesReady;

struct Service : Log::Logger
{
    Service()
        : Logger("Service", "", nullptr)
    {
    }
};

/// A line of the free log call.
void log(Severity severity, char const* text)
{
    Log::tavroDoLog(severity, "%s", {}, text);
}

auto hasText(std::string const& text)
{
    return [text](LogLine const& line) { return line.text == text; };
}

/// Stands for the sink and the threshold that a program has set.
class LogCaptureTest : public Test
{
protected:
    class CountingSink : public Log::LoggerImplIfc
    {
    public:
        void write(Log::Record const& /*record*/) override { ++count; }

        int count{0};
    };

    LogCaptureTest()
    {
        LoggerProxy::instance().setSink(sinkOfTheProgram);
        LoggerProxy::instance().setThreshold(Severity::Warning);
    }

    ~LogCaptureTest() override
    {
        LoggerProxy::instance().setSink(nullptr);
        LoggerProxy::instance().setThreshold(Severity::Info);
    }

    std::shared_ptr<CountingSink> const sinkOfTheProgram = std::make_shared<CountingSink>();
};

TEST_F(LogCaptureTest, KeepsSeverityLoggerAndTextInTheOrderOfArrival)
{
    LogCapture const sut;

    Service().tavroDoLog(Severity::Error, "no %s since %d s", {}, "answer", 5);
    log(Severity::Trace, "free");

    EXPECT_THAT(sut.lines(), ElementsAre(LogLine{Severity::Error, "Service", "no answer since 5 s"},
                                         LogLine{Severity::Trace, "", "free"}));
    EXPECT_THAT(sut.linesOf("Service"), ElementsAre(LogLine{Severity::Error, "Service", "no answer since 5 s"}));
    EXPECT_EQ(sinkOfTheProgram->count, 0);
}

TEST_F(LogCaptureTest, CapturesNothingBeyondItsThreshold)
{
    LogCapture const sut(Severity::Error);

    log(Severity::Error, "captured");
    log(Severity::Warning, "not captured");

    EXPECT_THAT(sut.lines(), ElementsAre(LogLine{Severity::Error, "", "captured"}));
}

TEST_F(LogCaptureTest, PutsSinkAndThresholdBackAtItsEnd)
{
    for (auto const before : {Severity::Critical, Severity::Warning, Severity::Trace})
    {
        LoggerProxy::instance().setThreshold(before);
        {
            LogCapture const sut(Severity::Info);
        }

        EXPECT_TRUE(LoggerProxy::instance().isSeverityEnabled(before));
        EXPECT_FALSE(LoggerProxy::instance().isSeverityEnabled(static_cast<Severity>(static_cast<int>(before) + 1)));
    }
    log(Severity::Error, "of the program");
    EXPECT_EQ(sinkOfTheProgram->count, 1);
}

TEST_F(LogCaptureTest, InnerCaptureTakesTheLinesOfTheOuterOneUntilItsEnd)
{
    LogCapture const outer;
    {
        LogCapture const inner;
        log(Severity::Info, "inner");
        EXPECT_EQ(inner.count(hasText("inner")), 1);
    }
    log(Severity::Info, "outer");

    EXPECT_THAT(outer.lines(), ElementsAre(LogLine{Severity::Info, "", "outer"}));
}

TEST_F(LogCaptureTest, CountsWhatThePredicateTells)
{
    LogCapture const sut;

    log(Severity::Info, "tick");
    log(Severity::Info, "tock");
    log(Severity::Info, "tick");

    EXPECT_EQ(sut.count(hasText("tick")), 2);
    EXPECT_EQ(sut.count(hasText("tack")), 0);
}

TEST_F(LogCaptureTest, ForgetsWhatIsCleared)
{
    LogCapture sut;
    log(Severity::Info, "before");

    sut.clear();
    log(Severity::Info, "after");

    EXPECT_THAT(sut.lines(), ElementsAre(LogLine{Severity::Info, "", "after"}));
}

TEST_F(LogCaptureTest, WaitIsOverAtOnceForALineThatHasCome)
{
    LogCapture const sut;
    log(Severity::Info, "ready");

    EXPECT_TRUE(sut.waitFor(hasText("ready"), 0ms));
}

TEST_F(LogCaptureTest, WaitIsOverWhenTheLineComes)
{
    LogCapture const sut;
    std::promise<void> go;

    auto const logging = std::async(std::launch::async,
                                    [gone = go.get_future()]() mutable
                                    {
                                        gone.wait();
                                        log(Severity::Info, "on its way");
                                        log(Severity::Info, "ready");
                                    });
    // Looks at each line on the thread that logs, so the wait is for this line alone.
    auto waiting = std::async(std::launch::async, [&sut] { return sut.waitFor(hasText("ready"), 20s); });
    go.set_value();

    EXPECT_TRUE(waiting.get());
    EXPECT_EQ(sut.count(hasText("on its way")), 1);
}

TEST_F(LogCaptureTest, WaitEndsAtItsLimitWithoutTheLine)
{
    LogCapture const sut;
    auto const begin = std::chrono::steady_clock::now();

    EXPECT_FALSE(sut.waitFor(hasText("ready"), 30ms));

    EXPECT_GE(std::chrono::steady_clock::now() - begin, 30ms);
    log(Severity::Info, "ready"); // nobody waits any longer
    EXPECT_EQ(sut.count(hasText("ready")), 1);
}

TEST_F(LogCaptureTest, SeveralThreadsWaitForLinesOfTheirOwn)
{
    LogCapture sut;
    std::vector<std::future<bool>> waiting;
    for (char const* const text : {"a", "b", "c"})
    {
        waiting.push_back(std::async(std::launch::async, [&sut, text] { return sut.waitFor(hasText(text), 20s); }));
    }

    for (char const* const text : {"c", "a", "b"})
    {
        log(Severity::Info, text);
    }

    for (auto& thread : waiting)
    {
        EXPECT_TRUE(thread.get());
    }
}

TEST_F(LogCaptureTest, CallbackSeesEachLineOnTheThreadThatLogs)
{
    LogCapture sut;
    std::vector<std::string> seen;
    std::thread::id seenOn;
    sut.onLine(
        [&](LogLine const& line)
        {
            seen.push_back(line.text);
            seenOn = std::this_thread::get_id();
        });

    std::thread::id loggedOn;
    std::thread(
        [&loggedOn]
        {
            loggedOn = std::this_thread::get_id();
            log(Severity::Info, "first");
        })
        .join();
    EXPECT_EQ(seenOn, loggedOn);
    log(Severity::Info, "second");
    sut.onLine(nullptr);
    log(Severity::Info, "third");

    EXPECT_THAT(seen, ElementsAre("first", "second"));
}

TEST_F(LogCaptureTest, LoggerInsideTheSinkAtTheEndOfTheCaptureMayFinish)
{
    std::promise<void> inside;
    std::promise<void> goOn;
    auto sut = std::make_unique<LogCapture>();
    sut->onLine(
        [&](LogLine const& /*line*/)
        {
            inside.set_value();
            goOn.get_future().wait_for(20s);
        });
    auto const logging = std::async(std::launch::async, [] { log(Severity::Info, "late"); });
    EXPECT_TRUE(becomesReady(inside.get_future(), 20s));

    sut.reset();
    goOn.set_value();

    EXPECT_TRUE(becomesReady(logging, 20s));
}

TEST(LogCaptureLineTest, LinesAreEqualInAllTheirParts)
{
    LogLine const line{Severity::Info, "Service", "text"};

    EXPECT_EQ(line, (LogLine{Severity::Info, "Service", "text"}));
    EXPECT_NE(line, (LogLine{Severity::Debug, "Service", "text"}));
    EXPECT_NE(line, (LogLine{Severity::Info, "Other", "text"}));
    EXPECT_NE(line, (LogLine{Severity::Info, "Service", "other"}));
}

TEST(LogCaptureLineTest, IsPrintedWithItsSeverityAndLogger)
{
    std::ostringstream stream;

    stream << LogLine{Severity::Error, "Service", "no answer"};

    EXPECT_EQ(stream.str(), "1 [Service] no answer");
}

TEST_F(LogCaptureTest, MatchersTakeValuesAndMatchers)
{
    StrictLogCapture sut;
    Service().tavroDoLog(Severity::Info, "%s", {}, "ready after 5 s");

    EXPECT_EQ(sut.count(isLine(Severity::Info, "Service", std::string("ready after 5 s"))), 1);
    EXPECT_EQ(sut.count(isLine(Severity::Info, _, StartsWith("ready"))), 1);
    EXPECT_EQ(sut.count(isLine(Severity::Debug, "Service", _)), 0);
    EXPECT_EQ(sut.count(isLine(Severity::Info, "Other", _)), 0);
    EXPECT_EQ(sut.count(isLine(Severity::Info, "Service", std::string("ready"))), 0);
    EXPECT_TRUE(sut.waitFor(isLine(Severity::Info, "Service", HasSubstr("after"))));
    EXPECT_FALSE(sut.waitFor(isLine(Severity::Info, "Service", HasSubstr("before")), 1ms));
}

TEST_F(LogCaptureTest, StrictCaptureFailsTheTestAtAnUnexpectedWarning)
{
    EXPECT_NONFATAL_FAILURE(
        {
            StrictLogCapture sut;
            sut.expect(isLine(Severity::Warning, "", std::string("low battery")));
            log(Severity::Info, "no fault");
            log(Severity::Warning, "low battery");
            log(Severity::Warning, "no answer");
        },
        "unexpected log line: 2 [] no answer");
}

TEST_F(LogCaptureTest, StrictCaptureIsContentWithWhatWasExpectedOrCleared)
{
    StrictLogCapture sut;
    sut.expect(isLine(Severity::Error, "", std::string("no answer")));
    sut.expect(isLine(Severity::Critical, "", StartsWith("ended")));

    log(Severity::Warning, "forgotten");
    sut.clear();
    log(Severity::Error, "no answer");
    log(Severity::Error, "no answer");
    log(Severity::Critical, "ended by a fault");

    EXPECT_EQ(sut.lines().size(), 3);
}

}

}
