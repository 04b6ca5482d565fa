// The pipe of a command, that other programs inherit in the exact build.

#include "process/FirmwareFixture.h"

#include <tuple>

namespace Halden::Tavro::Utils
{

namespace
{

using namespace TestSupport;

using FirmwareVersionTavroExactTest = FirmwareFixture;

// kept: programs inherit what popen(3) opens without "e"
TEST_F(FirmwareVersionTavroExactTest, AnotherProgramInheritsThePipe)
{
    auto const open = openInProgramsWhileReading("echo text");

    EXPECT_NE(open.before, "");
    EXPECT_NE(open.during, open.before);
    EXPECT_STREQ(std::get<1>(popenDouble.calls().at(0)), "r");
}

}

}
