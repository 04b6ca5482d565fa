// What temporary files and readers of files leave behind when one of their calls fails, in either build.

#include <utils/FileToString.h>
#include <utils/TempDir.h>
#include <utils/TempFile.h>

#include "FailingTemporaries.h"

#include <gmock/gmock.h>

#include <cerrno>
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
}
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

TEST_F(FilesFailingCallTest, ReadingThatFindsNoMemoryClosesTheFile)
{
    std::string const path = directory.path() + "/a file whose name is longer than any short string";
    std::string const content(200'000, 'x');
    std::ofstream(path) << content;

    EXPECT_THAT(leftByFailingCalls({allocations()},
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
