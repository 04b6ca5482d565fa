#include <utils/FirmwareVersionTavro.h>

#include "support/CallDouble.h"
#include "support/LogCapture.h"
#include "support/Resources.h"
#include "support/VirtualSlot.h"

#include <utils/TempDir.h>

#include <gmock/gmock.h>

#include <sys/wait.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <vector>

namespace Halden::Tavro::Utils
{

namespace
{

using namespace testing;
using namespace TestSupport;
using namespace std::string_literals;
using Log::Severity;

char const* const loggerName = "Halden::Tavro::Utils::FirmwareVersionTavro";
std::string const versionCommand = "tavro-fw-version";
std::string const compatibleIdCommand =
    R"(rauc status --output-format=shell | grep RAUC_SYSTEM_COMPATIBLE | cut -f2 -d\')";

CallDouble<std::FILE*(char const*, char const*)> popenDouble{"popen"};
CallDouble<std::size_t(void*, std::size_t, std::size_t, std::FILE*)> freadDouble{"fread"};
CallDouble<int(std::FILE*)> pcloseDouble{"pclose"};

/// What happens around one stream, in order: calls of the system with their values, and log lines.
std::vector<std::string> events;
std::FILE* stream = nullptr;

}

extern "C"
{

    std::FILE* popen(char const* command, char const* mode)
    {
        events.push_back("popen("s + command + ", " + mode + ")");
        return stream = popenDouble(command, mode);
    }

    std::size_t fread(void* buffer, std::size_t size, std::size_t count, std::FILE* file)
    {
        if (file != stream)
        {
            return freadDouble.passOn(buffer, size, count, file);
        }
        events.push_back("fread(" + std::to_string(size) + ", " + std::to_string(count) + ")");
        return freadDouble(buffer, size, count, file);
    }

    int pclose(std::FILE* file)
    {
        events.push_back(file == stream ? "pclose" : "pclose of another stream");
        return pcloseDouble(file);
    }
}

namespace
{

/// Opens the steps to the tests.
class Steps : public FirmwareVersionTavro
{
public:
    using FirmwareVersionTavro::execGetStdout;
    using FirmwareVersionTavro::initCompatibleId;
    using FirmwareVersionTavro::initVersion;

    Steps()
        : Log::Logger("steps", "", std::make_shared<Log::LoggerImpl>())
    {
    }
};

/// Gives the device's commands as scripts, found first in PATH.
class FirmwareVersionTavroTest : public Test
{
protected:
    FirmwareVersionTavroTest()
    {
        reset();
        setenv("PATH", (commands.path() + ":" + pathBefore).c_str(), 1);
    }

    ~FirmwareVersionTavroTest() override
    {
        setenv("PATH", pathBefore.c_str(), 1);
        reset();
    }

    static void reset()
    {
        popenDouble.reset();
        freadDouble.reset();
        pcloseDouble.reset();
        events.clear();
        stream = nullptr;
    }

    void giveCommand(std::string const& name, std::string const& script) const
    {
        auto const file = std::filesystem::path(commands.path()) / name;
        std::ofstream(file) << "#!/bin/sh\n" << script << '\n';
        std::filesystem::permissions(file, std::filesystem::perms::owner_all);
    }

    void giveBoth() const
    {
        giveCommand("tavro-fw-version", "echo 1.2.3");
        giveCommand("rauc", R"(test "$*" = "status --output-format=shell" || exit 1
            echo "RAUC_SYSTEM_VARIANT='rev-b'"
            echo "RAUC_SYSTEM_COMPATIBLE='board-x'"
            echo "RAUC_BOOT_PRIMARY='rootfs.0'")");
    }

    /// Of the shell: octal escapes.
    static std::string printfCommand(std::string const& output)
    {
        std::string command = "printf '";
        for (char const byte : output)
        {
            char escaped[8]{};
            static_cast<void>(std::snprintf(escaped, sizeof escaped, "\\%03o", static_cast<unsigned char>(byte)));
            command += escaped;
        }
        return command + "'";
    }

    void expectFailure(std::string const& logger, std::string const& text)
    {
        log.expect(isLine(Severity::Error, logger, text));
    }

    TempDir const commands{"FirmwareVersionTavroTest-", "/tmp"};
    std::string const pathBefore = getenv("PATH");
    LogCapture log;
};

TEST_F(FirmwareVersionTavroTest, ValuesAreEmptyAndNothingRunsBeforeInit)
{
    FirmwareVersionTavro const sut;

    EXPECT_EQ(sut.version(), "");
    EXPECT_EQ(sut.compatibleId(), "");
    EXPECT_THAT(events, IsEmpty());
    EXPECT_THAT(log.linesOf(loggerName), IsEmpty());
}

TEST_F(FirmwareVersionTavroTest, InitAsksTheDevicesCommands)
{
    giveBoth();
    FirmwareVersionTavro sut;

    EXPECT_TRUE(sut.init());

    EXPECT_EQ(sut.version(), "1.2.3");
    EXPECT_EQ(sut.compatibleId(), "board-x");
    EXPECT_THAT(events, ElementsAre("popen(" + versionCommand + ", r)", "fread(1, 2047)", "pclose",
                                    "popen(" + compatibleIdCommand + ", r)", "fread(1, 2047)", "pclose"));
}

TEST_F(FirmwareVersionTavroTest, SecondCommandHas78CharactersAndEndsInBackslashAndQuote)
{
    std::string command;
    popenDouble.replace(
        [&command](char const* text, char const*)
        {
            command = text;
            return nullptr;
        });
    log.expect(Field(&LogLine::severity, Severity::Error));

    Steps().initCompatibleId();

    EXPECT_EQ(command.size(), 78U);
    EXPECT_THAT(command, EndsWith("\\'"));
    EXPECT_EQ(std::count(command.begin(), command.end(), '\\'), 1);
}

TEST_F(FirmwareVersionTavroTest, SuccessIsLoggedStepByStepWithTheOutputAsItIs)
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

TEST_F(FirmwareVersionTavroTest, StepsHaveTheirOrder)
{
    giveBoth();
    Steps sut;
    log.onLine([](LogLine const& line) { events.push_back(line.text); });

    sut.initVersion();

    EXPECT_THAT(events, ElementsAre("executing cmd 'tavro-fw-version'", "popen(tavro-fw-version, r)", "fread(1, 2047)",
                                    "pclose", "read 6 bytes from it's stdout", "read from stdout: 1.2.3\n"));
}

TEST_F(FirmwareVersionTavroTest, NothingIsLoggedAboutASuccessWhereDebugIsDisabled)
{
    giveBoth();
    FirmwareVersionTavro sut;
    Log::LoggerProxy::instance().setThreshold(Severity::Info);

    EXPECT_TRUE(sut.init());

    EXPECT_THAT(log.linesOf(loggerName), IsEmpty());
    EXPECT_EQ(sut.version(), "1.2.3");
}

TEST_F(FirmwareVersionTavroTest, OutputIsCutAfter2047BytesAndAtNulAndLosesItsNewlines)
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

TEST_F(FirmwareVersionTavroTest, CommandThatPrintsForeverIsCutOff)
{
    Steps sut;

    EXPECT_EQ(sut.execGetStdout("yes"), std::string(1024, 'y'));
}

TEST_F(FirmwareVersionTavroTest, ExitStatusCountsForNothing)
{
    giveBoth();
    giveCommand("tavro-fw-version", "echo 1.2.3; exit 3");
    giveCommand("rauc", "echo \"RAUC_SYSTEM_COMPATIBLE='board-x'\"; kill -KILL $$");
    FirmwareVersionTavro sut;

    EXPECT_TRUE(sut.init());

    EXPECT_EQ(sut.version(), "1.2.3");
    EXPECT_EQ(sut.compatibleId(), "board-x");
    EXPECT_THAT(log.linesOf(loggerName), Each(Field(&LogLine::severity, Severity::Debug)));
}

TEST_F(FirmwareVersionTavroTest, MissingVersionCommandIsLoggedAndTheIdIsStillFetched)
{
    giveBoth();
    std::filesystem::remove(std::filesystem::path(commands.path()) / "tavro-fw-version");
    expectFailure(loggerName, "Failed to read the output of command 'tavro-fw-version'.");
    FirmwareVersionTavro sut;

    EXPECT_FALSE(sut.init());

    EXPECT_EQ(sut.version(), "");
    EXPECT_EQ(sut.compatibleId(), "board-x");
    auto lines = log.linesOf(loggerName);
    lines.resize(4);
    EXPECT_THAT(
        lines,
        ElementsAre(LogLine{Severity::Debug, loggerName, "executing cmd 'tavro-fw-version'"},
                    LogLine{Severity::Debug, loggerName, "read 0 bytes from it's stdout"},
                    LogLine{Severity::Error, loggerName, "Failed to read the output of command 'tavro-fw-version'."},
                    LogLine{Severity::Debug, loggerName, "executing cmd '" + compatibleIdCommand + "'"}));
}

TEST_F(FirmwareVersionTavroTest, IdThatTheUpdateClientDoesNotTellIsLogged)
{
    giveBoth();
    giveCommand("rauc", "echo \"RAUC_BOOT_PRIMARY='rootfs.0'\"");
    expectFailure(loggerName, "Failed to read the output of command '" + compatibleIdCommand + "'.");
    FirmwareVersionTavro sut;

    EXPECT_FALSE(sut.init());

    EXPECT_EQ(sut.version(), "1.2.3");
    EXPECT_EQ(sut.compatibleId(), "");
}

TEST_F(FirmwareVersionTavroTest, SilentCommandThrows)
{
    Steps sut;
    expectFailure("steps", "Failed to read the output of command 'true'.");

    EXPECT_THAT([&] { sut.execGetStdout("true"); },
                ThrowsMessage<std::runtime_error>("Failed to read command output."));
    EXPECT_THAT(events, ElementsAre("popen(true, r)", "fread(1, 2047)", "pclose"));
}

TEST_F(FirmwareVersionTavroTest, FailingPopenIsLoggedAndThrown)
{
    Steps sut;
    popenDouble.failCall(1, nullptr, ENOMEM);
    expectFailure("steps", "Failed to execute the command 'true'");

    EXPECT_THAT([&] { sut.execGetStdout("true"); }, ThrowsMessage<std::runtime_error>("Command failed."));

    EXPECT_THAT(events, ElementsAre("popen(true, r)"));
    EXPECT_THAT(log.linesOf("steps"),
                ElementsAre(LogLine{Severity::Debug, "steps", "executing cmd 'true'"},
                            LogLine{Severity::Error, "steps", "Failed to execute the command 'true'"}));
}

TEST_F(FirmwareVersionTavroTest, FailingPopenOfOneValueLeavesTheOther)
{
    giveBoth();
    for (std::size_t const failing : {1U, 2U})
    {
        reset();
        popenDouble.failCall(failing, nullptr, EMFILE);
        expectFailure(loggerName,
                      "Failed to execute the command '" + (failing == 1 ? versionCommand : compatibleIdCommand) + "'");
        FirmwareVersionTavro sut;

        EXPECT_FALSE(sut.init());

        EXPECT_EQ(sut.version(), failing == 1 ? "" : "1.2.3");
        EXPECT_EQ(sut.compatibleId(), failing == 2 ? "" : "board-x");
    }
}

TEST_F(FirmwareVersionTavroTest, TextEndsWhereTheReadingEnded)
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

TEST_F(FirmwareVersionTavroTest, FailingPcloseGoesUnnoticed)
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

TEST_F(FirmwareVersionTavroTest, StandardExceptionOfAStepIsSwallowed)
{
    Steps sut;
    popenDouble.replace([](char const*, char const*) -> std::FILE* { throw std::logic_error("no shell"); });

    EXPECT_FALSE(sut.initVersion());
    EXPECT_FALSE(sut.initCompatibleId());
    EXPECT_FALSE(sut.init());
}

TEST_F(FirmwareVersionTavroTest, AnyOtherExceptionPassesThrough)
{
    Steps sut;
    popenDouble.replace([](char const*, char const*) -> std::FILE* { throw 42; });

    EXPECT_THROW(sut.initVersion(), int);
    EXPECT_THROW(sut.initCompatibleId(), int);
    EXPECT_THROW(sut.init(), int);
    EXPECT_EQ(popenDouble.count(), 3U) << "init goes no further";
}

TEST_F(FirmwareVersionTavroTest, SecondInitOverwritesWhatItGetsAndLeavesTheRest)
{
    giveBoth();
    FirmwareVersionTavro sut;
    ASSERT_TRUE(sut.init());
    expectFailure(loggerName, "Failed to read the output of command '" + compatibleIdCommand + "'.");

    giveCommand("tavro-fw-version", "echo 1.3.0");
    giveCommand("rauc", "exit 1");
    EXPECT_FALSE(sut.init());

    EXPECT_EQ(sut.version(), "1.3.0");
    EXPECT_EQ(sut.compatibleId(), "board-x");
}

TEST_F(FirmwareVersionTavroTest, NoDescriptorAndNoChildIsLeft)
{
    giveBoth();
    giveCommand("tavro-fw-version", "yes");
    FirmwareVersionTavro sut;
    auto const before = openDescriptors();

    for (int i = 0; i < 20; ++i)
    {
        EXPECT_TRUE(sut.init());
    }

    EXPECT_EQ(openDescriptors(), before);
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
    EXPECT_EQ(errno, ECHILD);
}

TEST(FirmwareVersionIfcTest, OperationsHaveTheirSlots)
{
    static_assert(std::has_virtual_destructor_v<FirmwareVersionIfc>);
    static_assert(sizeof(FirmwareVersionIfc) == sizeof(void*));
    static_assert(!std::is_convertible_v<FirmwareVersionTavro*, Log::Logger*>);

    EXPECT_EQ(virtualSlot(&FirmwareVersionIfc::version), 2);
    EXPECT_EQ(virtualSlot(&FirmwareVersionIfc::compatibleId), 3);
    EXPECT_EQ(virtualSlot(&FirmwareVersionTavro::version), 2);
    EXPECT_EQ(virtualSlot(&FirmwareVersionTavro::compatibleId), 3);
    EXPECT_EQ(virtualSlot(&FirmwareVersionTavro::init), -1);
}

}

}
