// The stream buffers of a Pipe.

#include "process/PipeFixture.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <iterator>
#include <ostream>
#include <string>

namespace Halden::Tavro::Utils
{

namespace
{

using namespace TestSupport;

class PipeBufferTest : public PipeFixture
{
};

TEST_F(PipeBufferTest, ReaderSeesFlushedDataAndThenTheEnd)
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

TEST_F(PipeBufferTest, ReadBufferReadsAnyBytesUntilTheEnd)
{
    Pipe sut;
    std::string const bytes("a\0\n\r\xff\x1a z", 8);
    ASSERT_EQ(write(numbersOf(sut).write, bytes.data(), bytes.size()), 8);
    sut.close(Pipe::End::Write);

    auto buffer = sut.bufferRead();

    ASSERT_TRUE(buffer.is_open());
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(&buffer), {}), bytes);
}

TEST_F(PipeBufferTest, BuffersAreOpenedForOneDirection)
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

TEST_F(PipeBufferTest, WriteBufferHoldsLessThan8192BytesBack)
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

TEST_F(PipeBufferTest, ReadBufferHolds8192Bytes)
{
    Pipe const sut;
    ASSERT_EQ(write(numbersOf(sut).write, std::string(10'000, 'x').data(), 10'000), 10'000);

    auto buffer = sut.bufferRead();

    EXPECT_EQ(buffer.sgetc(), 'x');
    EXPECT_EQ(buffer.in_avail(), 8191); // and a byte that was put back
}

// kept: a buffer knows no pipe, which closes the number once more
TEST_F(PipeBufferTest, DestroyedBufferHasClosedTheDescriptorWhoseNumberStays)
{
    Pipe const sut;
    int const number = numbersOf(sut).read;

    sut.bufferRead();

    EXPECT_EQ(fcntl(number, F_GETFD), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(numbersOf(sut).read, number);
}

TEST_F(PipeBufferTest, BufferThatCannotBeOpenedIsReturnedClosed)
{
    Pipe const sut;
    fdopenDouble.failCall(1, nullptr, ENOMEM);
    fdopenDouble.failCall(2, nullptr, ENOMEM);

    EXPECT_FALSE(sut.bufferRead().is_open());
    EXPECT_FALSE(sut.bufferWrite().is_open());

    EXPECT_EQ(fcntl(numbersOf(sut).read, F_GETFD), 0);
    EXPECT_EQ(fcntl(numbersOf(sut).write, F_GETFD), 0);
}

TEST_F(PipeBufferTest, BuffersOfAClosedPipeAreClosed)
{
    Pipe sut;
    sut.close();

    EXPECT_FALSE(sut.bufferRead().is_open());
    EXPECT_FALSE(sut.bufferWrite().is_open());
}

}

}
