// The pipe of a command, that no other program inherits in the hardened build.

#include <utils/Execute.h>

#include "process/FirmwareFixture.h"

#include <chrono>
#include <sstream>
#include <string>
#include <tuple>

namespace Halden::Tavro::Utils
{

namespace
{

using namespace TestSupport;

class FirmwareVersionTavroHardenedTest : public FirmwareFixture
{
protected:
    /// The descriptors of a program that runs now.
    static std::string descriptorsOfAProgram()
    {
        std::istringstream const input;
        return execute("/bin/ls", {"/proc/self/fd"}, {}, input, std::chrono::minutes(1)).output;
    }
};

TEST_F(FirmwareVersionTavroHardenedTest, NoOtherProgramInheritsThePipe)
{
    std::string const alone = descriptorsOfAProgram();
    std::string during;
    freadDouble.replace(
        [&](void* buffer, std::size_t size, std::size_t count, std::FILE* file)
        {
            during = descriptorsOfAProgram();
            return freadDouble.passOn(buffer, size, count, file);
        });

    EXPECT_EQ(Steps().execGetStdout("echo text"), "text");

    EXPECT_NE(alone, "");
    EXPECT_EQ(during, alone);
    EXPECT_STREQ(std::get<1>(popenDouble.calls().at(0)), "re");
}

}

}
