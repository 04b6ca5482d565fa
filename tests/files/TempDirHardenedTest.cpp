// What the hardened build logs instead of ending the process, and what it does not leave.

#include <utils/TempDir.h>

#include "UnlinkatDouble.h"
#include "WorkingDirectory.h"
#include "support/FailingNew.h"
#include "support/LogCapture.h"

#include <gmock/gmock.h>

#include <cerrno>
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

char const* const loggerName = "Halden::Tavro::Utils::TempDir";

class TempDirHardenedTest : public Test
{
protected:
    TempDirHardenedTest()
    {
        unlinkatDouble.reset();
        log.expect(Field(&LogLine::logger, loggerName));
    }

    ~TempDirHardenedTest() override { unlinkatDouble.reset(); }

    WorkingDirectory const parent;
    LogCapture log{Log::Severity::Error};
};

TEST_F(TempDirHardenedTest, WhatCannotBeRemovedIsLoggedAndStays)
{
    auto sut = std::make_unique<TempDir>("data-", parent.path());
    std::string const stays = sut->path() + "/stays";
    std::filesystem::create_directory(stays);
    std::string const path = sut->path();
    unlinkatDouble.failCall(1, -1, EPERM);
    log.onLine([](auto const&) { errno = EIO; });

    sut.reset();

    EXPECT_THAT(log.lines(), ElementsAre(LogLine{Log::Severity::Error, loggerName,
                                                 "Cannot remove temporary directory '" + path +
                                                     "', errno is 1: Operation not permitted"}));
    EXPECT_TRUE(std::filesystem::exists(stays));
}

TEST_F(TempDirHardenedTest, ConstructionWithoutMemoryLeavesNothing)
{
    std::size_t failures = 0;
    for (bool made = false; !made; ++failures)
    {
        failNextAllocation(AllocationFailure::BadAlloc, failures);
        try
        {
            TempDir const sut("data-", parent.path());
            made = !allocationHasFailed();
        }
        catch (std::exception const&)
        {
        }
        EXPECT_TRUE(std::filesystem::is_empty(parent.path())) << failures;
    }
    EXPECT_GT(failures, 5U) << "too few allocations were seen";
}

}

}
