// What a Pipe closes once in the hardened build.

#include "process/PipeFixture.h"

#include <cerrno>
#include <stdexcept>

namespace Halden::Tavro::Utils
{

namespace
{

using namespace TestSupport;
using testing::ElementsAre;
using testing::StrEq;
using testing::ThrowsMessage;

class PipeHardenedTest : public PipeFixture
{
};

TEST_F(PipeHardenedTest, ClosedReadEndIsNeverClosedAgain)
{
    auto sut = makeOf({4711, 4712});

    sut->close(Pipe::End::Read);
    sut->close(Pipe::End::Read);
    EXPECT_THAT(closed(), ElementsAre(4711));
    sut.reset();

    EXPECT_THAT(closed(), ElementsAre(4711, 4712));
}

TEST_F(PipeHardenedTest, ClosedWriteEndIsNeverClosedAgain)
{
    auto sut = makeOf({4711, 4712});

    sut->close(Pipe::End::Write);
    sut->close();
    EXPECT_THAT(closed(), ElementsAre(4712, 4711));
    sut.reset();

    EXPECT_THAT(closed(), ElementsAre(4712, 4711));
}

}

}
