// What a service of the exact build does not survive, and what it leaves.

#include <utils/TempFile.h>

#include "WorkingDirectory.h"
#include "support/ChildProcess.h"
#include "support/FailingNew.h"
#include "support/LogCapture.h"
#include "support/Resources.h"

#include <gmock/gmock.h>

#include <signal.h>

#include <cstddef>
#include <exception>
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

// kept: one that runs out of memory has other worries
TEST_F(TempFileExactTest, FileWhosePathFindsNoMemoryStaysOpen)
{
    auto const before = openDescriptors();
    LogCapture const silence(Log::Severity::Critical);
    bool stayed = false;
    for (std::size_t passing = 0; !stayed; ++passing)
    {
        failNextAllocation(AllocationFailure::BadAlloc, passing);
        try
        {
            TempFile const sut("data-", ".h5", directory.path());
            ASSERT_TRUE(allocationHasFailed()) << "none of its " << passing << " allocations leaves a file";
        }
        catch (std::exception const&)
        {
        }
        stayed = !std::filesystem::is_empty(directory.path());
    }
    EXPECT_EQ(openDescriptors(), before + 1);
}

}

}
