// What a service of the exact build does not survive, and what it leaves.

#include <utils/TempDir.h>

#include "files/FailingTemporaries.h"
#include "files/UnlinkatDouble.h"
#include "files/WorkingDirectory.h"
#include "support/ChildProcess.h"

#include <gmock/gmock.h>

#include <signal.h>

#include <cerrno>
#include <filesystem>
#include <optional>

namespace Halden::Tavro::Utils
{

namespace
{

using namespace testing;
using namespace TestSupport;

class TempDirExactTest : public Test
{
protected:
    TempDirExactTest() { unlinkatDouble.reset(); }

    ~TempDirExactTest() override { unlinkatDouble.reset(); }

    WorkingDirectory const parent;
};

// kept: a service that cannot clean up ends, and is started anew
TEST_F(TempDirExactTest, WhatCannotBeRemovedEndsTheProcess)
{
    auto const result = runInChild(
        [this]
        {
            TempDir const sut("data-", parent.path());
            std::filesystem::create_directory(sut.path() + "/stays");
            unlinkatDouble.failCall(1, -1, EPERM);
            return 0;
        });

    EXPECT_EQ(result.signal, std::optional(SIGABRT));
    EXPECT_THAT(result.output, HasSubstr("filesystem error"));
    EXPECT_THAT(result.output, HasSubstr("Operation not permitted"));
}

// kept: a process without memory ends soon, and the folder can be cleared at boot
TEST_F(TempDirExactTest, DirectoryWhosePathFindsNoMemoryStays)
{
    EXPECT_THAT(leftByConstructions<TempDir>({allocations()}, parent, "data-"),
                AllOf(Not(IsEmpty()), Each(EndsWith(": a directory"))));
}

}

}
