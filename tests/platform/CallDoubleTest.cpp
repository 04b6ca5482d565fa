#include "support/CallDouble.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>

namespace Halden::Tavro::TestSupport
{

namespace
{

CallDouble<int(char const*, int, mode_t)> openDouble{"open"};
CallDouble<int(int, int, void*)> fcntlDouble{"fcntl"};
CallDouble<off64_t(int, off64_t, int)> lseekDouble{"lseek64"};

}

extern "C"
{

    int openOfTest(char const* path, int flags, mode_t mode)
    {
        return openDouble(path, flags, mode);
    }

    int fcntlOfTest(int descriptor, int command, void* argument)
    {
        return fcntlDouble(descriptor, command, argument);
    }

    off64_t lseekOfTest(int descriptor, off64_t offset, int whence) noexcept
    {
        return lseekDouble(descriptor, offset, whence);
    }
}
HALDEN_DOUBLE(open, openOfTest)
HALDEN_DOUBLE(fcntl, fcntlOfTest)
HALDEN_DOUBLE(lseek64, lseekOfTest)

namespace
{

TEST(CallDoubleTest, StandsInUnderTheNarrowAndTheWideName)
{
    openDouble.reset();
    fcntlDouble.reset();

    int const narrow = open("/dev/null", O_RDONLY);
    int const wide = open64("/dev/null", O_RDONLY);
    int const narrowFlags = fcntl(narrow, F_GETFD);
    int const wideFlags = fcntl64(wide, F_GETFD);
    close(narrow);
    close(wide);

    EXPECT_GE(narrow, 0);
    EXPECT_GE(wide, 0);
    EXPECT_EQ(narrowFlags, 0);
    EXPECT_EQ(wideFlags, 0);
    EXPECT_EQ(openDouble.count(), 2U);
    EXPECT_EQ(fcntlDouble.count(), 2U);
}

TEST(CallDoubleTest, CallThatFailsOnceDoneHasDoneItsWork)
{
    lseekDouble.reset();
    lseekDouble.failCallOnceDone(1, off64_t{-1}, EIO);
    int const file = open("/proc/self/maps", O_RDONLY);

    errno = 0;
    EXPECT_EQ(lseek64(file, 1, SEEK_SET), -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(lseek64(file, 0, SEEK_CUR), 1);

    close(file);
}

TEST(CallDoubleTest, StandsInForTheCallsOfTheStandardLibrary)
{
    lseekDouble.reset();

    std::ifstream file("/dev/null");
    file.seekg(0, std::ios::end);

    EXPECT_TRUE(file.good());
    EXPECT_GE(lseekDouble.count(), 1U);
}

}

}
