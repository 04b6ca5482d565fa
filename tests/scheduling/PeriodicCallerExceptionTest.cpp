#include "scheduling/CallerTest.h"
#include "support/ChildProcess.h"

#include <utils/PeriodicCaller.h>

#include <gmock/gmock.h>

#include <atomic>
#include <csignal>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace Halden::Tavro::Utils
{

namespace
{

using namespace std::chrono_literals;
using namespace testing;
using namespace TestSupport;

using PeriodicCallerExceptionTest = CallerTest;

class FailingPeriodicCallerTest : public CallerTest
{
protected:
    FailingPeriodicCallerTest()
    {
        log.expect(endedByException);
        skippedWaits = 1;
    }

    /// Starts it and waits until its thread has ended by itself.
    void startAndFail()
    {
        sut.start();
        ASSERT_TRUE(log.waitFor(debugLine("-periodicCallerThread(name = led)")));
    }

    std::atomic<int> calls{0};
    PeriodicCaller sut{1h, "led",
                       [this](auto const&)
                       {
                           if (calls++ == 0)
                           {
                               throw std::runtime_error("broken");
                           }
                       }};
};

// kept: a callback that has failed is not called again before the caller has been stopped and started
TEST_F(FailingPeriodicCallerTest, ExceptionOfTheCallbackIsLoggedOnceAndEndsTheThread)
{
    startAndFail();

    EXPECT_EQ(calls, 1);
    EXPECT_EQ(log.count(endedByException), 1U);
    EXPECT_THAT(log.lines().end()[-2], endedByException);
    EXPECT_THAT(log.lines().back(), debugLine("-periodicCallerThread(name = led)"));
}

TEST_F(FailingPeriodicCallerTest, ExceptionIsLoggedUnderTheMutexTheEndOfTheThreadIsNot)
{
    std::vector<bool> freeAtLine; // only the worker writes while it runs
    log.onLine(
        [&](LogLine const& line)
        {
            if (line.severity == Log::Severity::Critical || line.text == "-periodicCallerThread(name = led)")
            {
                freeAtLine.push_back(objectsMutexIsFree());
            }
        });

    startAndFail();

    sut.stop();
    EXPECT_THAT(freeAtLine, ElementsAre(false, true));
    log.onLine(nullptr);
}

TEST_F(FailingPeriodicCallerTest, AfterAnExceptionStartThrowsUntilStopped)
{
    startAndFail();

    EXPECT_THAT([this] { sut.start(); }, throwsAlreadyStarted("led"));
    EXPECT_THAT([this] { sut.start(); }, throwsAlreadyStarted("led"));
    sut.stop();
    skippedWaits = 1;
    sut.start();

    EXPECT_TRUE(waitFor([this] { return calls == 2; }));
    EXPECT_EQ(pthreadCreate.count(), 2U);
}

TEST_F(FailingPeriodicCallerTest, StopAfterAnExceptionJoinsTheEndedThread)
{
    startAndFail();
    log.clear();

    sut.stop();

    EXPECT_THAT(log.lines(), ElementsAre(debugLine("+stop()"), stopping, debugLine("-stop()")));
}

TEST_F(PeriodicCallerExceptionTest, EmptyCallbackEndsTheThreadAsABadFunctionCall)
{
    auto const badCall = isLine(Log::Severity::Critical, loggerOfLed,
                                "PeriodicCaller thread stop because of exception. What: " +
                                    std::string(std::bad_function_call().what()));
    log.expect(badCall);
    skippedWaits = 1;
    PeriodicCaller sut(1h, "led", nullptr);

    sut.start();

    EXPECT_TRUE(log.waitFor(debugLine("-periodicCallerThread(name = led)")));
    EXPECT_EQ(log.count(badCall), 1U);
}

// kept: what is no std::exception ends the process, as out of any thread
TEST_F(PeriodicCallerExceptionTest, AnythingElseThrownEndsTheProcess)
{
    auto const result = runInChild(
        []
        {
            PeriodicCaller sut(0us, "led", [](auto const&) { throw 42; });
            sut.start();
            std::this_thread::sleep_for(15s); // the end of the process comes long before
            return 0;
        });

    EXPECT_EQ(result.signal, std::optional(SIGABRT));
    EXPECT_THAT(result.output, HasSubstr("terminate called after throwing an instance of 'int'"));
}

}

}
