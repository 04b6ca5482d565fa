// What a service of the exact build does not survive, and what it leaves.

#include <utils/TempFile.h>

#include "files/FailingTemporaries.h"
#include "files/WorkingDirectory.h"
#include "support/ChildProcess.h"

#include <gmock/gmock.h>

#include <signal.h>

#include <filesystem>
#include <optional>

namespace Halden::Tavro::Utils
{

namespace
{

using namespace testing;
using namespace TestSupport;

class TempFileExactTest : public Test
{
protected:
    WorkingDirectory const directory;
};

// kept: a service that cannot clean up ends, and is started anew
TEST_F(TempFileExactTest, WhatCannotBeRemovedEndsTheProcess)
{
    auto const result = runInChild(
        [this]
        {
            TempFile const sut("data-", "", directory.path());
            std::filesystem::remove(sut.path());
            std::filesystem::create_directories(sut.path() + "/in the way");
            return 0;
        });

    EXPECT_EQ(result.signal, std::optional(SIGABRT));
    EXPECT_THAT(result.output, HasSubstr("filesystem error"));
    EXPECT_THAT(result.output, HasSubstr("Directory not empty"));
}

// kept: a process without memory ends soon, and the folder can be cleared at boot
TEST_F(TempFileExactTest, FileWhosePathFindsNoMemoryStaysOpen)
{
    EXPECT_THAT(leftByConstructions<TempFile>({allocations()}, directory, "data-", ".h5"),
                AllOf(Not(IsEmpty()), Each(EndsWith(": a file, 1 descriptor"))));
}

}

}
