// What a Pipe opens and closes.

#include "process/PipeFixture.h"
#include "support/Resources.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <stdexcept>
#include <type_traits>

namespace Halden::Tavro::Utils
{

namespace
{

using namespace TestSupport;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::StrEq;
using testing::ThrowsMessage;

static_assert(!std::is_polymorphic_v<Pipe>);
static_assert(!std::is_copy_constructible_v<Pipe> && !std::is_copy_assignable_v<Pipe>);
static_assert(!std::is_move_constructible_v<Pipe> && !std::is_move_assignable_v<Pipe>);
static_assert(static_cast<int>(Pipe::End::Write) == 0 && static_cast<int>(Pipe::End::Read) == 1);

class PipeTest : public PipeFixture
{
};

TEST_F(PipeTest, FieldsAreReadEndAndWriteEndInThisOrder)
{
    auto const sut = makeOf({4711, 4712});

    EXPECT_EQ(numbersOf(*sut).read, 4711);
    EXPECT_EQ(numbersOf(*sut).write, 4712);
    EXPECT_EQ(pipeDouble.count(), 1U);
}

TEST_F(PipeTest, WhatIsWrittenCanBeRead)
{
    Pipe const sut;

    ASSERT_EQ(write(numbersOf(sut).write, "text", 4), 4);

    std::array<char, 5> text{};
    EXPECT_EQ(read(numbersOf(sut).read, text.data(), text.size()), 4);
    EXPECT_STREQ(text.data(), "text");
}

// kept: users hand the ends on to programs that they start themselves
TEST_F(PipeTest, EndsArePlainDescriptors)
{
    Pipe const sut;

    EXPECT_EQ(fcntl(numbersOf(sut).read, F_GETFD), 0);
    EXPECT_EQ(fcntl(numbersOf(sut).write, F_GETFD), 0);
    EXPECT_EQ(fcntl(numbersOf(sut).read, F_GETFL) & O_NONBLOCK, 0);
    EXPECT_EQ(fcntl(numbersOf(sut).write, F_GETFL) & O_NONBLOCK, 0);
}

TEST_F(PipeTest, FailedCreationThrowsAndClosesNothingThatWasNotMade)
{
    pipeDouble.failCall(1, -1, EMFILE);

    EXPECT_THAT([] { make(); }, ThrowsMessage<std::runtime_error>(StrEq("Failed to create pipe")));

    EXPECT_THAT(closed(), IsEmpty());
}

TEST_F(PipeTest, FailedCreationClosesWhatWasMade)
{
    pipeDouble.replace(
        [](int* ends)
        {
            ends[0] = 4711;
            ends[1] = 4712;
            return -1;
        });
    closeDouble.replace([](int) { return 0; });

    EXPECT_THAT([] { make(); }, ThrowsMessage<std::runtime_error>(StrEq("Failed to create pipe")));

    EXPECT_THAT(closed(), ElementsAre(4711, 4712));
}

TEST_F(PipeTest, CloseClosesReadThenWriteEndAndForgetsThem)
{
    auto const sut = makeOf({4711, 4712});

    sut->close();

    EXPECT_THAT(closed(), ElementsAre(4711, 4712));
    EXPECT_EQ(numbersOf(*sut).read, -1);
    EXPECT_EQ(numbersOf(*sut).write, -1);
}

TEST_F(PipeTest, SecondCloseDoesNothing)
{
    auto sut = makeOf({4711, 4712});
    sut->close();
    closeDouble.reset();

    sut->close();
    sut.reset();

    EXPECT_THAT(closed(), IsEmpty());
}

TEST_F(PipeTest, DescriptorZeroIsClosedAsWell)
{
    auto const sut = makeOf({0, 4712});

    sut->close();

    EXPECT_THAT(closed(), ElementsAre(0, 4712));
}

TEST_F(PipeTest, DestructorClosesBothEnds)
{
    auto sut = makeOf({4711, 4712});

    sut.reset();

    EXPECT_THAT(closed(), ElementsAre(4711, 4712));
}

TEST_F(PipeTest, DestructorLeavesNoDescriptor)
{
    auto const before = openDescriptors();
    {
        Pipe const sut;
        ASSERT_EQ(openDescriptors(), before + 2);
    }

    EXPECT_EQ(openDescriptors(), before);
}

TEST_F(PipeTest, AnyOtherEndClosesNothing)
{
    auto const sut = makeOf({4711, 4712});

    sut->close(static_cast<Pipe::End>(2));
    sut->close(static_cast<Pipe::End>(-1));

    EXPECT_THAT(closed(), IsEmpty());
}

TEST_F(PipeTest, ErrorOfCloseIsIgnored)
{
    auto const sut = makeOf({4711, 4712});
    closeDouble.failCall(1, -1, EIO);
    closeDouble.failCall(2, -1, EIO);
    closeDouble.failCall(3, -1, EIO);

    EXPECT_NO_THROW(sut->close(Pipe::End::Read));
    EXPECT_NO_THROW(sut->close());

    EXPECT_EQ(numbersOf(*sut).read, -1);
    EXPECT_EQ(numbersOf(*sut).write, -1);
}

TEST_F(PipeTest, ClosedEndCannotBeUsedAnyMore)
{
    Pipe sut;

    sut.close(Pipe::End::Read);
    sut.close(Pipe::End::Write);

    EXPECT_FALSE(sut.bufferRead().is_open());
    EXPECT_FALSE(sut.bufferWrite().is_open());
    EXPECT_THAT([&] { sut.useAsStdin(); }, ThrowsMessage<std::runtime_error>(StrEq(
                                               "Failed to set stdin to the pipe, error was Bad file descriptor")));
}

}

}
