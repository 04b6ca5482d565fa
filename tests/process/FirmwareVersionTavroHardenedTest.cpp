// The pipe of a command, that no other program inherits in the hardened build.

#include "process/FirmwareFixture.h"

#include <tuple>

namespace Halden::Tavro::Utils
{

namespace
{

using namespace TestSupport;

using FirmwareVersionTavroHardenedTest = FirmwareFixture;

TEST_F(FirmwareVersionTavroHardenedTest, NoOtherProgramInheritsThePipe)
{
    auto const open = openInProgramsWhileReading("echo text");

    EXPECT_NE(open.before, "");
    EXPECT_EQ(open.during, open.before);
    EXPECT_STREQ(std::get<1>(popenDouble.calls().at(0)), "re");
}

}

}
