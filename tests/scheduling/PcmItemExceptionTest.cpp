#include <utils/PcmItem.h>

#include "scheduling/ItemTest.h"
#include "support/LogCapture.h"

#include <gmock/gmock.h>

#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace Halden::Tavro::Utils
{

namespace
{

using namespace std::chrono_literals;
using namespace testing;
using namespace TestSupport;

using Log::Severity;

constexpr auto laterUnknownText = "PcmItem execution threw unknown exception.";

std::string firstText(std::string const& what)
{
    return "PcmItem execution threw exception. Exception: " + what +
           ".\nFurther exceptions will be logged with trace level";
}

std::string laterText(std::string const& what)
{
    return "PcmItem execution threw exception. Exception: " + what + ".\n";
}

TEST(PcmItemExceptionTest, FirstExceptionIsAnErrorAndLaterOnesAreTraces)
{
    LogCapture log;
    auto const error = isLine(Severity::Error, itemLogger, firstText("x"));
    auto const trace = isLine(Severity::Trace, itemLogger, laterText("x"));
    log.expect(error);
    PcmItem sut([] { throw std::runtime_error("x"); }, 1ms);

    sut.execute();
    sut.execute();
    sut.execute();

    EXPECT_THAT(log.lines(), ElementsAre(error, trace, trace));
}

TEST(PcmItemExceptionTest, FirstUnknownExceptionIsAnErrorAndLaterOnesAreTraces)
{
    LogCapture log;
    auto const error = isLine(Severity::Error, itemLogger, firstUnknownText);
    auto const trace = isLine(Severity::Trace, itemLogger, laterUnknownText);
    log.expect(error);
    PcmItem sut([] { throw 42; }, 1ms);

    sut.execute();
    sut.execute();
    sut.execute();

    EXPECT_THAT(log.lines(), ElementsAre(error, trace, trace));
}

TEST(PcmItemExceptionTest, UnknownExceptionAfterAnExceptionIsATrace)
{
    LogCapture log;
    auto const error = isLine(Severity::Error, itemLogger, firstText("x"));
    log.expect(error);
    bool first = true;
    PcmItem sut(
        [&first]
        {
            if (std::exchange(first, false))
            {
                throw std::runtime_error("x");
            }
            throw 42;
        },
        1ms);

    sut.execute();
    sut.execute();

    EXPECT_THAT(log.lines(), ElementsAre(error, isLine(Severity::Trace, itemLogger, laterUnknownText)));
}

TEST(PcmItemExceptionTest, ExceptionAfterAnUnknownExceptionIsATrace)
{
    LogCapture log;
    auto const error = isLine(Severity::Error, itemLogger, firstUnknownText);
    log.expect(error);
    bool first = true;
    PcmItem sut(
        [&first]
        {
            if (std::exchange(first, false))
            {
                throw 42;
            }
            throw std::runtime_error("x");
        },
        1ms);

    sut.execute();
    sut.execute();

    EXPECT_THAT(log.lines(), ElementsAre(error, isLine(Severity::Trace, itemLogger, laterText("x"))));
}

TEST(PcmItemExceptionTest, SuccessBetweenTwoExceptionsDoesNotMakeTheSecondAnError)
{
    LogCapture log;
    auto const error = isLine(Severity::Error, itemLogger, firstText("x"));
    log.expect(error);
    int calls = 0;
    PcmItem sut(
        [&calls]
        {
            if (++calls != 2)
            {
                throw std::runtime_error("x");
            }
        },
        1ms);

    sut.execute();
    sut.execute();
    sut.execute();

    EXPECT_EQ(calls, 3);
    EXPECT_THAT(log.lines(), ElementsAre(error, isLine(Severity::Trace, itemLogger, laterText("x"))));
}

TEST(PcmItemExceptionTest, EachItemHasAFirstExceptionOfItsOwn)
{
    LogCapture log;
    auto const error = isLine(Severity::Error, itemLogger, firstText("x"));
    log.expect(error);
    auto const throwing = [] { throw std::logic_error("x"); };
    PcmItem first(throwing, 1ms);
    PcmItem second(throwing, 1ms);

    first.execute();
    second.execute();

    EXPECT_THAT(log.lines(), ElementsAre(error, error));
}

TEST(PcmItemExceptionTest, PercentSignsOfAnExceptionAreNotInterpreted)
{
    LogCapture log;
    auto const error = isLine(Severity::Error, itemLogger, firstText("100% of %s and %n"));
    log.expect(error);
    PcmItem sut([] { throw std::runtime_error("100% of %s and %n"); }, 1ms);

    sut.execute();

    EXPECT_THAT(log.lines(), ElementsAre(error));
}

TEST(PcmItemExceptionTest, EmptyFunctionEndsInALoggedBadFunctionCall)
{
    LogCapture log;
    std::string const what = std::bad_function_call().what();
    auto const error = isLine(Severity::Error, itemLogger, firstText(what));
    log.expect(error);
    PcmItem sut({}, 1ms);

    sut.execute();
    sut.execute();

    EXPECT_THAT(log.lines(), ElementsAre(error, isLine(Severity::Trace, itemLogger, laterText(what))));
}

// kept: two of the four end in a line feed; what reads the log looks for them as they are
TEST(PcmItemExceptionTest, TextsHaveTheirLengths)
{
    std::size_t const specifier = std::string("%s").size();
    std::vector<std::size_t> lengths;
    LogCapture log;
    log.expect(_);
    log.onLine([&lengths](LogLine const& line) { lengths.push_back(line.text.size()); });
    PcmItem known([] { throw std::runtime_error(""); }, 1ms);
    PcmItem unknown([] { throw 42; }, 1ms);

    known.execute();
    known.execute();
    unknown.execute();
    unknown.execute();

    EXPECT_THAT(lengths, ElementsAre(100 - specifier, 50 - specifier, 93, 42));
}

/// Executes an item that throws, and tells whether its lock was free while each line was logged.
std::vector<bool> lockIsFreeInLines(std::function<void()> const& throwing)
{
    LogCapture log;
    log.expect(_);
    PcmItem sut(throwing, 1ms);
    std::vector<std::unique_ptr<Waiter>> waiters; // outlive the callback, so that a held lock fails and does not hang
    std::vector<bool> isFree;
    log.onLine(
        [&](LogLine const&)
        {
            waiters.push_back(std::make_unique<Waiter>(sut));
            isFree.push_back(waiters.back()->returnsWithin(limit));
        });

    sut.execute();
    sut.execute();
    waiters.clear();
    return isFree;
}

// kept: a log call may take its time, and nobody waits for the item meanwhile
TEST(PcmItemExceptionTest, ExceptionsAreLoggedOutsideTheLock)
{
    EXPECT_THAT(lockIsFreeInLines([] { throw std::runtime_error("x"); }), ElementsAre(true, true));
}

TEST(PcmItemExceptionTest, UnknownExceptionsAreLoggedOutsideTheLock)
{
    EXPECT_THAT(lockIsFreeInLines([] { throw 42; }), ElementsAre(true, true));
}

}

}
