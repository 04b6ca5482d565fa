// How a format and its values become a text.

#include <log/Logger.h>

#include "support/LogCapture.h"

#include <gmock/gmock.h>

#include <array>
#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace Halden::Tavro::Log
{

namespace
{

using namespace testing;
using namespace TestSupport;

class LoggerTextTest : public Test
{
protected:
    LogCapture log;
};

TEST_F(LoggerTextTest, ValuesAreFormattedAsPrintfDoes)
{
    Logger const sut("name", "", nullptr);

    sut.tavroDoLog(Severity::Info, "%s|%d|%u|%lu|%f|100%%", {}, "text", -2147483647, 4294967295U, 4294967295UL, -1.5);
    tavroDoLog(Severity::Info, "%s|%d|%u|%lu|%f|100%%", {}, "", 0, 0U, 0UL, 1e10);

    EXPECT_THAT(log.lines(),
                ElementsAre(LogLine{Severity::Info, "name", "text|-2147483647|4294967295|4294967295|-1.500000|100%"},
                            LogLine{Severity::Info, "", "|0|0|0|10000000000.000000|100%"}));
}

TEST_F(LoggerTextTest, MoreValuesThanRegistersHoldArriveInOrder)
{
    tavroDoLog(Severity::Info, "%d %f %d %f %d %f %d %f %d %f %d %f %d %f %d %f %d %f", {}, 1, 1.5, 2, 2.5, 3, 3.5, 4,
               4.5, 5, 5.5, 6, 6.5, 7, 7.5, 8, 8.5, 9, 9.5);

    EXPECT_THAT(log.lines(),
                ElementsAre(LogLine{Severity::Info, "",
                                    "1 1.500000 2 2.500000 3 3.500000 4 4.500000 5 5.500000 6 6.500000 7 7.500000 "
                                    "8 8.500000 9 9.500000"}));
}

TEST_F(LoggerTextTest, TextsOfAnyLengthArriveWhole)
{
    std::vector<LogLine> expected;
    for (std::size_t const length : {0U, 1U, 510U, 511U, 512U, 513U, 1024U, 5000U})
    {
        expected.push_back({Severity::Info, "", std::string(length, 'x')});

        tavroDoLog(Severity::Info, "%s", {}, expected.back().text.c_str());
    }

    EXPECT_THAT(log.lines(), ElementsAreArray(expected));
}

TEST_F(LoggerTextTest, ValuesOfALongTextAreReadFromTheFirstOn)
{
    std::string const filler(600, 'x');

    tavroDoLog(Severity::Info, "%d %s %f %lu", {}, 1, filler.c_str(), 2.5, 3UL);

    EXPECT_THAT(log.lines(), ElementsAre(LogLine{Severity::Info, "", "1 " + filler + " 2.500000 3"}));
}

TEST_F(LoggerTextTest, BufferPassedByValuePrintsItsTextWhateverIsEnabled)
{
    Logger const sut("name", "", nullptr);
    std::array<char, 2048> large{};
    large.fill('x');
    large.at(1000) = '\0';
    struct
    {
        char text[4]{'a', 'b'};
    } const small;
    std::array<char, 4> const full{'a', 'b', 'c', 'd'};

    for (Severity const threshold :
         {Severity::Critical, Severity::Error, Severity::Warning, Severity::Info, Severity::Debug, Severity::Trace})
    {
        LoggerProxy::instance().setThreshold(threshold);
        sut.tavroDoLog(Severity::Debug, "%d %s %s", {}, 1, large, small);
        tavroDoLog(Severity::Debug, "%s, %s %f", {}, full, "text", 2.5);
    }

    LogLine const ofMember{Severity::Debug, "name", "1 " + std::string(1000, 'x') + " ab"};
    LogLine const ofFree{Severity::Debug, "", "abc, text 2.500000"};
    EXPECT_THAT(log.lines(), ElementsAre(ofMember, ofFree, ofMember, ofFree)); // Debug and Trace
}

TEST_F(LoggerTextTest, FormatEndsWhereItsViewEnds)
{
    std::string_view const format("+start() and more %s", 8);

    Logger("name", "", nullptr).tavroDoLog(Severity::Info, format, {});
    tavroDoLog(Severity::Info, format, {});
    tavroDoLog(Severity::Info, {}, {});

    EXPECT_THAT(log.lines(), ElementsAre(LogLine{Severity::Info, "name", "+start()"},
                                         LogLine{Severity::Info, "", "+start()"}, LogLine{Severity::Info, "", ""}));
}

TEST_F(LoggerTextTest, FormatsOfAnyLengthArriveWhole)
{
    std::vector<LogLine> expected;
    for (std::size_t const length : {0U, 1U, 252U, 253U, 254U, 255U, 256U, 257U, 511U, 512U, 513U, 5000U})
    {
        std::string const text(length, 'x');
        std::string const format = text + "%d%d";
        expected.push_back({Severity::Info, "", text});
        expected.push_back({Severity::Info, "", text + "5"});

        tavroDoLog(Severity::Info, std::string_view(format.data(), length), {});
        tavroDoLog(Severity::Info, std::string_view(format.data(), length + 2), {}, 5);
    }

    EXPECT_THAT(log.lines(), ElementsAreArray(expected));
}

TEST_F(LoggerTextTest, FormatEndsAtItsNul)
{
    tavroDoLog(Severity::Info, std::string_view("one\0two", 7), {});
    tavroDoLog(Severity::Info, std::string_view("%d\0%d", 5), {}, 1);

    EXPECT_THAT(log.lines(), ElementsAre(LogLine{Severity::Info, "", "one"}, LogLine{Severity::Info, "", "1"}));
}

TEST_F(LoggerTextTest, WhatCannotBeFormattedArrivesAsItsFormat)
{
    tavroDoLog(Severity::Info, "price: %ls", {}, L"\u20ac"); // not a character of the "C" locale

    EXPECT_THAT(log.lines(), ElementsAre(LogLine{Severity::Info, "", "price: %ls"}));
}

}

}
