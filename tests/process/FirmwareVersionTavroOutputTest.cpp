// What is taken of a command's output, and what is logged about it.

#include "process/FirmwareFixture.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <string>

namespace Halden::Tavro::Utils
{

namespace
{

using namespace testing;
using namespace TestSupport;
using namespace std::string_literals;
using Log::Severity;

class FirmwareVersionTavroOutputTest : public FirmwareFixture
{
};

// kept: "it's stdout"; what reads the log looks for it
TEST_F(FirmwareVersionTavroOutputTest, SuccessIsLoggedStepByStepWithTheOutputAsItIs)
{
    giveBoth();
    giveCommand("tavro-fw-version", "echo '1.2.3 %s %d %n'; echo last");
    FirmwareVersionTavro sut;

    sut.init();

    EXPECT_THAT(log.linesOf(loggerName),
                ElementsAre(LogLine{Severity::Debug, loggerName, "executing cmd 'tavro-fw-version'"},
                            LogLine{Severity::Debug, loggerName, "read 20 bytes from it's stdout"},
                            LogLine{Severity::Debug, loggerName, "read from stdout: 1.2.3 %s %d %n\nlast\n"},
                            LogLine{Severity::Debug, loggerName, "executing cmd '" + compatibleIdCommand + "'"},
                            LogLine{Severity::Debug, loggerName, "read 8 bytes from it's stdout"},
                            LogLine{Severity::Debug, loggerName, "read from stdout: board-x\n"}));
}

TEST_F(FirmwareVersionTavroOutputTest, CommandIsClosedBeforeItsOutputIsLogged)
{
    giveBoth();
    Steps sut;
    log.onLine([](LogLine const& line) { calls.push_back(line.text); });

    sut.initVersion();

    EXPECT_THAT(calls, ElementsAre("executing cmd 'tavro-fw-version'", "popen(tavro-fw-version)", "fread(1, 2047)",
                                   "pclose", "read 6 bytes from it's stdout", "read from stdout: 1.2.3\n"));
}

// kept: services compare with texts that were cut like that
TEST_F(FirmwareVersionTavroOutputTest, OutputIsCutAfter2047BytesAndAtNulAndLosesItsNewlines)
{
    struct
    {
        std::string output;
        std::string value;
    } const rows[] = {
        {"1.2.3\n", "1.2.3"},
        {"1.2.3", "1.2.3"},
        {"a\nb\n", "ab"},
        {"\n\na\n\nb", "ab"},
        {"\n", ""},
        {"\r\n a\tb \r\n", "\r a\tb \r"},
        {"a\0b\n"s, "a"},
        {"\0b\n"s, ""},
        {"\xff\x80\n", "\xff\x80"},
        {std::string(2047, 'x'), std::string(2047, 'x')},
        {std::string(2048, 'x'), std::string(2047, 'x')},
        {std::string(1000, 'x') + "\n" + std::string(1999, 'y'), std::string(1000, 'x') + std::string(1046, 'y')},
    };
    Steps sut;
    for (auto const& row : rows)
    {
        log.clear();

        EXPECT_EQ(sut.execGetStdout(printfCommand(row.output)), row.value);

        std::string const logged = row.output.substr(0, 2047).c_str(); // up to a NUL
        EXPECT_EQ(log.count(isLine(Severity::Debug, "steps", "read from stdout: " + logged)), 1U);
    }
}

TEST_F(FirmwareVersionTavroOutputTest, CommandThatPrintsForeverIsCutOff)
{
    Steps sut;

    EXPECT_EQ(sut.execGetStdout("yes"), std::string(1024, 'y'));
}

// kept: whatever a command prints is the answer
TEST_F(FirmwareVersionTavroOutputTest, ExitStatusCountsForNothing)
{
    giveBoth();
    giveCommand("tavro-fw-version", "echo 1.2.3; exit 3");
    giveCommand("rauc", "echo \"RAUC_SYSTEM_COMPATIBLE='board-x'\"; kill -KILL $$");
    FirmwareVersionTavro sut;

    EXPECT_TRUE(sut.init());

    EXPECT_EQ(sut.version(), "1.2.3");
    EXPECT_EQ(sut.compatibleId(), "board-x");
    EXPECT_THAT(log.linesOf(loggerName), AllOf(SizeIs(6), Each(Field(&LogLine::severity, Severity::Debug))));
}

TEST_F(FirmwareVersionTavroOutputTest, SilentCommandThrows)
{
    Steps sut;
    expectFailure("steps", "Failed to read the output of command 'true'.");

    EXPECT_THAT([&] { sut.execGetStdout("true"); },
                ThrowsMessage<std::runtime_error>("Failed to read command output."));
    EXPECT_THAT(calls, ElementsAre("popen(true)", "fread(1, 2047)", "pclose"));
}

TEST_F(FirmwareVersionTavroOutputTest, FailingPopenIsLoggedAndThrown)
{
    Steps sut;
    popenDouble.failCall(1, nullptr, ENOMEM);
    expectFailure("steps", "Failed to execute the command 'true'");

    EXPECT_THAT([&] { sut.execGetStdout("true"); }, ThrowsMessage<std::runtime_error>("Command failed."));

    EXPECT_THAT(calls, ElementsAre("popen(true)"));
    EXPECT_THAT(log.linesOf("steps"),
                ElementsAre(LogLine{Severity::Debug, "steps", "executing cmd 'true'"},
                            LogLine{Severity::Error, "steps", "Failed to execute the command 'true'"}));
}

TEST_F(FirmwareVersionTavroOutputTest, TextEndsWhereTheReadingEnded)
{
    Steps sut;
    freadDouble.replace(
        [](void* buffer, std::size_t, std::size_t count, std::FILE*)
        {
            std::memset(buffer, 'x', count);
            return std::size_t{5};
        });

    EXPECT_EQ(sut.execGetStdout("true"), "xxxxx");
    EXPECT_THAT(log.linesOf("steps"), ElementsAre(LogLine{Severity::Debug, "steps", "executing cmd 'true'"},
                                                  LogLine{Severity::Debug, "steps", "read 5 bytes from it's stdout"},
                                                  LogLine{Severity::Debug, "steps", "read from stdout: xxxxx"}));
}

TEST_F(FirmwareVersionTavroOutputTest, FailingPcloseGoesUnnoticed)
{
    giveBoth();
    FirmwareVersionTavro sut;
    pcloseDouble.replace(
        [](std::FILE* file)
        {
            pcloseDouble.passOn(file);
            errno = ECHILD;
            return -1;
        });

    EXPECT_TRUE(sut.init());

    EXPECT_EQ(pcloseDouble.count(), 2U);
    EXPECT_EQ(sut.version(), "1.2.3");
}

}

}
