// What a Pipe closes twice in the exact build.

#include "process/PipeFixture.h"

namespace Halden::Tavro::Utils
{

namespace
{

using namespace TestSupport;
using testing::ElementsAre;

class PipeExactTest : public PipeFixture
{
};

// kept: users close one end, and then the rest
TEST_F(PipeExactTest, ClosedReadEndKeepsItsNumberAndIsClosedAgain)
{
    auto sut = makeOf({4711, 4712});

    sut->close(Pipe::End::Read);
    EXPECT_EQ(numbersOf(*sut).read, 4711);
    EXPECT_THAT(closed(), ElementsAre(4711));
    sut->close(Pipe::End::Read);
    EXPECT_THAT(closed(), ElementsAre(4711, 4711));
    sut.reset();

    EXPECT_THAT(closed(), ElementsAre(4711, 4711, 4711, 4712));
}

// kept: as above
TEST_F(PipeExactTest, ClosedWriteEndKeepsItsNumberAndIsClosedAgain)
{
    auto sut = makeOf({4711, 4712});

    sut->close(Pipe::End::Write);
    EXPECT_EQ(numbersOf(*sut).write, 4712);
    EXPECT_THAT(closed(), ElementsAre(4712));
    sut->close();

    EXPECT_THAT(closed(), ElementsAre(4712, 4711, 4712));
}

}

}
