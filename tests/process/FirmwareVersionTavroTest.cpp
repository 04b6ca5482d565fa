// What init() asks the device, and what becomes of the values.

#include "process/FirmwareFixture.h"
#include "support/Resources.h"
#include "support/VirtualSlot.h"

#include <sys/wait.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <type_traits>

namespace Halden::Tavro::Utils
{

namespace
{

using namespace testing;
using namespace TestSupport;
using Log::Severity;

class FirmwareVersionTavroTest : public FirmwareFixture
{
};

TEST_F(FirmwareVersionTavroTest, ValuesAreEmptyAndNothingRunsBeforeInit)
{
    FirmwareVersionTavro const sut;

    EXPECT_EQ(sut.version(), "");
    EXPECT_EQ(sut.compatibleId(), "");
    EXPECT_THAT(calls, IsEmpty());
    EXPECT_THAT(log.linesOf(loggerName), IsEmpty());
}

TEST_F(FirmwareVersionTavroTest, InitAsksTheDevicesCommands)
{
    giveBoth();
    FirmwareVersionTavro sut;

    EXPECT_TRUE(sut.init());

    EXPECT_EQ(sut.version(), "1.2.3");
    EXPECT_EQ(sut.compatibleId(), "board-x");
    EXPECT_THAT(calls, ElementsAre("popen(" + versionCommand + ")", "fread(1, 2047)", "pclose",
                                   "popen(" + compatibleIdCommand + ")", "fread(1, 2047)", "pclose"));
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

TEST_F(FirmwareVersionTavroTest, NothingIsLoggedAboutASuccessWhereDebugIsDisabled)
{
    giveBoth();
    FirmwareVersionTavro sut;
    Log::LoggerProxy::instance().setThreshold(Severity::Info);

    EXPECT_TRUE(sut.init());

    EXPECT_THAT(log.linesOf(loggerName), IsEmpty());
    EXPECT_EQ(sut.version(), "1.2.3");
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

    expectFailure(loggerName, "Failed to read the output of command '" + versionCommand + "'.");
    giveCommand("tavro-fw-version", "exit 1");
    giveCommand("rauc", "echo \"RAUC_SYSTEM_COMPATIBLE='board-y'\"");
    EXPECT_FALSE(sut.init());

    EXPECT_EQ(sut.version(), "1.3.0");
    EXPECT_EQ(sut.compatibleId(), "board-y");
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
