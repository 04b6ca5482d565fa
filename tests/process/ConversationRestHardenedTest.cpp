// What the hardened build still reads of an output once it waits for it no longer.

#include "process/ExecuteFixture.h"
#include "process/PipeNumbers.h"
#include "process/Programs.h"
#include "process/WaitingChild.h"
#include "support/CallDouble.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <functional>
#include <sstream>
#include <string>

namespace Halden::Tavro::Utils
{

namespace
{

TestSupport::CallDouble<int(int, unsigned long, void*)> ioctlDouble{"ioctl"};

}

extern "C" int ioctlOfTest(int descriptor, unsigned long request, void* argument) noexcept
{
    return ioctlDouble(descriptor, request, argument);
}
HALDEN_DOUBLE(ioctl, ioctlOfTest)

namespace
{

using namespace TestSupport;
using namespace std::chrono_literals;

/// A child that waits, and is killed at once: its last output comes just before.
class ConversationRestHardenedTest : public ExecuteFixture
{
protected:
    ConversationRestHardenedTest()
    {
        ioctlDouble.reset();
        killDouble.replace(
            [this](pid_t process, int signalNumber)
            {
                writeMore(last);
                beforeTheRest();
                return killDouble.passOn(process, signalNumber);
            });
    }

    ~ConversationRestHardenedTest() override
    {
        closeDouble.passOn(writer);
        EXPECT_FALSE(hasChildren());
    }

    void writeMore(std::string const& text) const
    {
        EXPECT_EQ(write(writer, text.data(), text.size()), static_cast<ssize_t>(text.size()));
    }

    std::string output()
    {
        std::istringstream const input;
        return waiting.getOutput(input, 0ms).output;
    }

    WaitingChild waiting;
    int const writer{dup(numbersOf(waiting.stdoutPipe).write)};
    std::string last{"late"};
    std::function<void()> beforeTheRest{[] {}};
};

TEST_F(ConversationRestHardenedTest, WhatIsInThePipeIsReadOnceTheChildIsKilled)
{
    EXPECT_EQ(output(), "late");
}

TEST_F(ConversationRestHardenedTest, OutputThatGrowsWhileItsRestIsReadIsReadAsItWas)
{
    last = std::string(1000, 'x');
    std::atomic<int> more{100};
    readDouble.replace(
        [&](int descriptor, void* buffer, std::size_t size)
        {
            ssize_t const count = readDouble.passOn(descriptor, buffer, size);
            if (count > 0 && more-- > 0)
            {
                writeMore(last);
            }
            return count;
        });

    EXPECT_EQ(output(), last);
}

TEST_F(ConversationRestHardenedTest, NothingIsReadWhereItsLengthCannotBeTold)
{
    ioctlDouble.failCall(1, -1, ENOTTY);

    EXPECT_EQ(output(), "");
}

TEST_F(ConversationRestHardenedTest, RestThatComesByteByByteIsWhole)
{
    readDouble.replace([](int descriptor, void* buffer, std::size_t)
                       { return readDouble.passOn(descriptor, buffer, 1); });

    EXPECT_EQ(output(), "late");
}

TEST_F(ConversationRestHardenedTest, NothingIsReadAfterAnEndThatComesTooEarly)
{
    beforeTheRest = [] { readDouble.failCall(readDouble.count() + 1, 0, 0); };

    EXPECT_EQ(output(), "");
}

TEST_F(ConversationRestHardenedTest, WhatSomebodyElseReadsIsNotWaitedFor)
{
    beforeTheRest = []
    {
        readDouble.replace(
            [](int, void*, std::size_t)
            {
                errno = EAGAIN;
                return -1;
            });
    };

    EXPECT_EQ(output(), "");
}

}

}
