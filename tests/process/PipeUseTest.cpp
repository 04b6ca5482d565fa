// A Pipe whose ends become the standard descriptors of a process.

#include "process/PipeFixture.h"
#include "support/ChildProcess.h"

#include <unistd.h>

#include <array>
#include <cerrno>
#include <stdexcept>
#include <string>
#include <tuple>

namespace Halden::Tavro::Utils
{

namespace
{

using namespace TestSupport;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::StrEq;
using testing::ThrowsMessage;

struct Use
{
    char const* name;
    int (Pipe::*operation)() const;
    int from;
    int to;
};

class PipeUseTest : public PipeFixture, public testing::WithParamInterface<Use>
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

class PipeStandardDescriptorTest : public PipeFixture
{
};

TEST_F(PipeStandardDescriptorTest, UsedEndIsTheStandardDescriptor)
{
    auto const child = runInChild(
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

}

}
