#include <utils/Pipe.h>

#include "process/PipeNumbers.h"
#include "support/CallDouble.h"
#include "support/ChildProcess.h"
#include "support/LogCapture.h"
#include "support/Resources.h"

#include <gmock/gmock.h>

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <functional>
#include <iterator>
#include <memory>
#include <ostream>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace Halden::Tavro::Utils
{

namespace
{

using testing::ElementsAre;
using testing::IsEmpty;
using testing::StrEq;
using testing::ThrowsMessage;
using TestSupport::CallDouble;
using TestSupport::numbersOf;
using TestSupport::PipeNumbers;

/// The test runtime makes such calls as well: without these, they go straight to the system.
std::atomic<bool> pipeUnderTest{false};
std::atomic<bool> underTest{false};

CallDouble<int(int*)> pipeDouble{"pipe"};
CallDouble<int(int, int)> dup2Double{"dup2"};
CallDouble<int(int)> closeDouble{"close"};
CallDouble<std::FILE*(int, char const*)> fdopenDouble{"fdopen"};

}

extern "C"
{

    int pipe(int* ends) noexcept
    {
        return pipeUnderTest ? pipeDouble(ends) : pipeDouble.passOn(ends);
    }

    int dup2(int from, int to) noexcept
    {
        return underTest ? dup2Double(from, to) : dup2Double.passOn(from, to);
    }

    int close(int descriptor)
    {
        return underTest ? closeDouble(descriptor) : closeDouble.passOn(descriptor);
    }

    std::FILE* fdopen(int descriptor, char const* mode) noexcept
    {
        return underTest ? fdopenDouble(descriptor, mode) : fdopenDouble.passOn(descriptor, mode);
    }
}

namespace
{

static_assert(!std::is_polymorphic_v<Pipe>);
static_assert(!std::is_copy_constructible_v<Pipe> && !std::is_copy_assignable_v<Pipe>);
static_assert(!std::is_move_constructible_v<Pipe> && !std::is_move_assignable_v<Pipe>);
static_assert(static_cast<int>(Pipe::End::Write) == 0 && static_cast<int>(Pipe::End::Read) == 1);

class PipeTest : public testing::Test
{
protected:
    PipeTest()
    {
        reset();
        underTest = true;
    }

    ~PipeTest() override
    {
        underTest = false;
        reset();
        EXPECT_THAT(log.lines(), IsEmpty());
    }

    static void reset()
    {
        pipeDouble.reset();
        dup2Double.reset();
        closeDouble.reset();
        fdopenDouble.reset();
    }

    /// A Pipe of numbers that are no descriptors of this process, so that closing them again does no harm.
    static std::unique_ptr<Pipe> makeOf(PipeNumbers numbers)
    {
        pipeDouble.replace(
            [numbers](int* ends)
            {
                ends[0] = numbers.read;
                ends[1] = numbers.write;
                return 0;
            });
        closeDouble.replace([](int) { return 0; });
        return make();
    }

    static std::unique_ptr<Pipe> make()
    {
        pipeUnderTest = true;
        struct End
        {
            ~End() { pipeUnderTest = false; }
        } const end;
        return std::make_unique<Pipe>();
    }

    static std::vector<int> closed()
    {
        std::vector<int> numbers;
        for (auto const& [descriptor] : closeDouble.calls())
        {
            numbers.push_back(descriptor);
        }
        return numbers;
    }

    TestSupport::LogCapture log;
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
    auto const before = TestSupport::openDescriptors();
    {
        Pipe const sut;
        ASSERT_EQ(TestSupport::openDescriptors(), before + 2);
    }

    EXPECT_EQ(TestSupport::openDescriptors(), before);
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

TEST_F(PipeTest, ClosedReadEndKeepsItsNumberAndIsClosedAgain)
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

TEST_F(PipeTest, ClosedWriteEndKeepsItsNumberAndIsClosedAgain)
{
    auto sut = makeOf({4711, 4712});

    sut->close(Pipe::End::Write);
    EXPECT_EQ(numbersOf(*sut).write, 4712);
    EXPECT_THAT(closed(), ElementsAre(4712));
    sut->close();

    EXPECT_THAT(closed(), ElementsAre(4712, 4711, 4712));
}

TEST_F(PipeTest, AnyOtherEndClosesNothing)
{
    auto const sut = makeOf({4711, 4712});

    sut->close(static_cast<Pipe::End>(2));
    sut->close(static_cast<Pipe::End>(-1));

    EXPECT_THAT(closed(), IsEmpty());
}

struct Use
{
    char const* name;
    int (Pipe::*operation)() const;
    int from;
    int to;
};

class PipeUseTest : public PipeTest, public testing::WithParamInterface<Use>
{
};

TEST_P(PipeUseTest, DuplicatesItsEndAndKeepsIt)
{
    auto const sut = makeOf({4711, 4712});
    dup2Double.replace([](int, int to) { return to; });

    EXPECT_EQ((sut.get()->*GetParam().operation)(), GetParam().to);

    EXPECT_THAT(dup2Double.calls(), ElementsAre(std::tuple(GetParam().from, GetParam().to)));
    EXPECT_THAT(closed(), IsEmpty());
    EXPECT_EQ(numbersOf(*sut).read, 4711);
    EXPECT_EQ(numbersOf(*sut).write, 4712);
}

TEST_P(PipeUseTest, FailureThrowsTheReason)
{
    auto const sut = makeOf({4711, 4712});
    dup2Double.failCall(1, -1, EBADF);

    EXPECT_THAT([&] { (sut.get()->*GetParam().operation)(); },
                ThrowsMessage<std::runtime_error>(StrEq(std::string("Failed to set ") + GetParam().name +
                                                        " to the pipe, error was Bad file descriptor")));
}

INSTANTIATE_TEST_SUITE_P(Standard, PipeUseTest,
                         testing::Values(Use{"stdin", &Pipe::useAsStdin, 4711, 0},
                                         Use{"stdout", &Pipe::useAsStdout, 4712, 1},
                                         Use{"stderr", &Pipe::useAsStderr, 4712, 2}),
                         [](auto const& use) { return std::string(use.param.name); });

TEST_F(PipeTest, UsedEndIsTheStandardDescriptor)
{
    auto const child = TestSupport::runInChild(
        []
        {
            Pipe in;
            Pipe out;
            in.useAsStdin();
            out.useAsStdout();
            std::array<char, 5> text{};
            bool const arrived = write(numbersOf(in).write, "in", 2) == 2 && read(STDIN_FILENO, text.data(), 5) == 2 &&
                                 std::string(text.data()) == "in" && write(STDOUT_FILENO, "out", 3) == 3 &&
                                 read(numbersOf(out).read, text.data(), 5) == 3 && std::string(text.data()) == "out";
            out.useAsStderr();
            return arrived && write(STDERR_FILENO, "err", 3) == 3 && read(numbersOf(out).read, text.data(), 5) == 3 &&
                           std::string(text.data()) == "err"
                       ? 0
                       : 1;
        });

    EXPECT_EQ(child.exitCode, 0);
}

TEST_F(PipeTest, ReaderSeesFlushedDataAndThenTheEnd)
{
    Pipe sut;
    auto buffer = sut.bufferWrite();
    ASSERT_TRUE(buffer.is_open());

    std::ostream(&buffer) << "text" << std::flush;
    sut.close(Pipe::End::Write);

    std::array<char, 5> text{};
    EXPECT_EQ(read(numbersOf(sut).read, text.data(), text.size()), 4);
    EXPECT_STREQ(text.data(), "text");
    EXPECT_EQ(read(numbersOf(sut).read, text.data(), text.size()), 0);
}

TEST_F(PipeTest, ReadBufferReadsAnyBytesUntilTheEnd)
{
    Pipe sut;
    std::string const bytes("a\0\n\r\xff\x1a z", 8);
    ASSERT_EQ(write(numbersOf(sut).write, bytes.data(), bytes.size()), 8);
    sut.close(Pipe::End::Write);

    auto buffer = sut.bufferRead();

    ASSERT_TRUE(buffer.is_open());
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(&buffer), {}), bytes);
}

TEST_F(PipeTest, BuffersAreOpenedForOneDirection)
{
    Pipe const sut;

    auto const readBuffer = sut.bufferRead();
    auto const writeBuffer = sut.bufferWrite();

    ASSERT_EQ(fdopenDouble.count(), 2U);
    EXPECT_EQ(std::get<0>(fdopenDouble.calls()[0]), numbersOf(sut).read);
    EXPECT_STREQ(std::get<1>(fdopenDouble.calls()[0]), "r");
    EXPECT_EQ(std::get<0>(fdopenDouble.calls()[1]), numbersOf(sut).write);
    EXPECT_STREQ(std::get<1>(fdopenDouble.calls()[1]), "w");
}

TEST_F(PipeTest, WriteBufferHoldsLessThan8192BytesBack)
{
    Pipe const sut;
    ASSERT_EQ(fcntl(numbersOf(sut).read, F_SETFL, O_NONBLOCK), 0);
    auto buffer = sut.bufferWrite();
    std::array<char, 8192> bytes{};

    for (int i = 0; i < 8191; ++i)
    {
        buffer.sputc('x');
    }
    EXPECT_EQ(read(numbersOf(sut).read, bytes.data(), bytes.size()), -1);
    buffer.sputc('x');

    EXPECT_EQ(read(numbersOf(sut).read, bytes.data(), bytes.size()), 8192);
}

TEST_F(PipeTest, ReadBufferHolds8192Bytes)
{
    Pipe const sut;
    ASSERT_EQ(write(numbersOf(sut).write, std::string(10'000, 'x').data(), 10'000), 10'000);

    auto buffer = sut.bufferRead();

    EXPECT_EQ(buffer.sgetc(), 'x');
    EXPECT_EQ(buffer.in_avail(), 8191); // and a byte that was put back
}

TEST_F(PipeTest, DestroyedBufferHasClosedTheDescriptorWhoseNumberStays)
{
    Pipe const sut;
    int const number = numbersOf(sut).read;

    sut.bufferRead();

    EXPECT_EQ(fcntl(number, F_GETFD), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(numbersOf(sut).read, number);
}

TEST_F(PipeTest, BufferThatCannotBeOpenedIsReturnedClosed)
{
    Pipe const sut;
    fdopenDouble.failCall(1, nullptr, ENOMEM);
    fdopenDouble.failCall(2, nullptr, ENOMEM);

    EXPECT_FALSE(sut.bufferRead().is_open());
    EXPECT_FALSE(sut.bufferWrite().is_open());

    EXPECT_EQ(fcntl(numbersOf(sut).read, F_GETFD), 0);
    EXPECT_EQ(fcntl(numbersOf(sut).write, F_GETFD), 0);
}

TEST_F(PipeTest, BuffersOfAClosedPipeAreClosed)
{
    Pipe sut;
    sut.close();

    EXPECT_FALSE(sut.bufferRead().is_open());
    EXPECT_FALSE(sut.bufferWrite().is_open());
}

}

}
