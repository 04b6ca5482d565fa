// What the hardened build logs instead of ending the process, and what it does not leave.

#include <utils/TempFile.h>

#include "WorkingDirectory.h"
#include "support/FailingNew.h"
#include "support/LogCapture.h"
#include "support/Resources.h"

#include <gmock/gmock.h>

#include <cstddef>
#include <exception>
#include <filesystem>
#include <memory>
#include <string>

namespace Halden::Tavro::Utils
{

namespace
{

using namespace testing;
using namespace TestSupport;

char const* const loggerName = "Halden::Tavro::Utils::TempFile";

class TempFileHardenedTest : public Test
{
protected:
    TempFileHardenedTest() { log.expect(Field(&LogLine::logger, loggerName)); }

    WorkingDirectory const directory;
    LogCapture log{Log::Severity::Error};
};

TEST_F(TempFileHardenedTest, WhatCannotBeRemovedIsLoggedAndStays)
{
    auto const before = openDescriptors();
    auto sut = std::make_unique<TempFile>("data-", "", directory.path());
    std::string const path = sut->path();
    std::filesystem::remove(path);
    std::filesystem::create_directories(path + "/in the way");

    sut.reset();

    EXPECT_THAT(log.lines(),
                ElementsAre(LogLine{Log::Severity::Error, loggerName,
                                    "Cannot remove temporary file " + path + ", errno is 39: Directory not empty"}));
    EXPECT_TRUE(std::filesystem::exists(path + "/in the way"));
    EXPECT_EQ(openDescriptors(), before);
}

TEST_F(TempFileHardenedTest, ConstructionWithoutMemoryLeavesNothing)
{
    auto const before = openDescriptors();
    std::size_t failures = 0;
    for (bool made = false; !made; ++failures)
    {
        failNextAllocation(AllocationFailure::BadAlloc, failures);
        try
        {
            TempFile const sut("data-", ".h5", directory.path());
            made = !allocationHasFailed();
        }
        catch (std::exception const&)
        {
        }
        EXPECT_TRUE(std::filesystem::is_empty(directory.path())) << failures;
        EXPECT_EQ(openDescriptors(), before) << failures;
    }
    EXPECT_GT(failures, 5U) << "too few allocations were seen";
}

}

}
