// What temporary files and readers of files leave behind when one of their calls fails, in either build.

#include <utils/FileToString.h>
#include <utils/TempDir.h>
#include <utils/TempFile.h>

#include "files/FailingTemporaries.h"

#include <gmock/gmock.h>

#include <sys/types.h>

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>

namespace Halden::Tavro::Utils
{

namespace
{

using namespace TestSupport;
using testing::IsEmpty;

CallDouble<char*(char*)> mkdtempDouble{"mkdtemp"};
CallDouble<int(char*, int)> mkstempsDouble{"mkstemps"};
CallDouble<int(int)> closeDouble{"close"};
CallDouble<std::FILE*(char const*, char const*)> fopenDouble{"fopen64"};
CallDouble<off64_t(int, off64_t, int)> lseekDouble{"lseek64"};
CallDouble<ssize_t(int, void*, std::size_t)> readDouble{"read"};

}

extern "C"
{

    char* mkdtemp(char* name) noexcept
    {
        return mkdtempDouble(name);
    }

    int mkstempsOfTest(char* name, int suffixLength)
    {
        return mkstempsDouble(name, suffixLength);
    }

    int close(int descriptor)
    {
        return closeDouble(descriptor);
    }

    std::FILE* fopenOfTest(char const* path, char const* mode)
    {
        return fopenDouble(path, mode);
    }

    off64_t lseekOfTest(int descriptor, off64_t offset, int whence) noexcept
    {
        return lseekDouble(descriptor, offset, whence);
    }

    ssize_t read(int descriptor, void* buffer, std::size_t size)
    {
        return readDouble(descriptor, buffer, size);
    }
}
HALDEN_DOUBLE(fopen64, fopenOfTest)
HALDEN_DOUBLE(lseek64, lseekOfTest)
HALDEN_DOUBLE(mkstemps, mkstempsOfTest)

namespace
{

class FilesFailingCallTest : public testing::Test
{
protected:
    WorkingDirectory const directory;
};

TEST_F(FilesFailingCallTest, DirectoryThatCannotBeMadeLeavesNothing)
{
    char* const none = nullptr;

    EXPECT_THAT(leftByConstructions<TempDir>({callsOf("mkdtemp", mkdtempDouble, none, ENOSPC)}, directory, "data-"),
                IsEmpty());
}

TEST_F(FilesFailingCallTest, FileThatCannotBeMadeLeavesNothing)
{
    EXPECT_THAT(
        leftByConstructions<TempFile>({callsOf("mkstemps", mkstempsDouble, -1, ENOSPC)}, directory, "data-", ".h5"),
        IsEmpty());
}

TEST_F(FilesFailingCallTest, FileThatFailsToCloseIsNotClosedAgain)
{
    closeDouble.replace(
        [](int descriptor)
        {
            int const result = closeDouble.passOn(descriptor);
            EXPECT_FALSE(result == -1 && errno == EBADF) << "closes " << descriptor << " again";
            return result;
        });

    EXPECT_THAT(leftByFailingCalls(
                    {doneCallsOf("close", closeDouble, -1, EIO)},
                    [this] { TempFile("data-", ".h5", directory.path()); },
                    [this] { return std::filesystem::is_empty(directory.path()) ? "" : "a file"; }),
                IsEmpty());

    closeDouble.reset();
}

TEST_F(FilesFailingCallTest, ReadingThatFailsClosesTheFile)
{
    std::string const path = directory.path() + "/a file whose name is longer than any short string";
    std::string const content(200'000, 'x');
    std::ofstream(path) << content;

    std::FILE* const none = nullptr;

    EXPECT_THAT(leftByFailingCalls({callsOf("fopen", fopenDouble, none, EMFILE),
                                    callsOf("lseek", lseekDouble, off64_t{-1}, ESPIPE),
                                    callsOf("read", readDouble, ssize_t{-1}, EIO), allocations()},
                                   [&]
                                   {
                                       if (fileToString(path) != content)
                                       {
                                           throw std::runtime_error("not read");
                                       }
                                   }),
                IsEmpty());
}

}

}
