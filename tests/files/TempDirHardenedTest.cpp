// What the hardened build logs instead of ending the process, and what it does not leave.

#include <utils/TempDir.h>

#include "WorkingDirectory.h"
#include "support/FailingNew.h"
#include "support/LogCapture.h"

#include <gmock/gmock.h>

#include <sys/resource.h>

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

/// No descriptor can be opened as long as it lives.
class NoDescriptors
{
public:
    NoDescriptors()
    {
        EXPECT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
        rlimit const none{0, before.rlim_max};
        EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    }

    ~NoDescriptors() { EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0); }

    NoDescriptors(NoDescriptors const&) = delete;
    NoDescriptors& operator=(NoDescriptors const&) = delete;

private:
    rlimit before{};
};

class TempDirHardenedTest : public Test
{
protected:
    TempDirHardenedTest() { log.expect(Field(&LogLine::logger, loggerName)); }

    /// One with some directories and files in it.
    std::unique_ptr<TempDir> makeTree() const
    {
        auto made = std::make_unique<TempDir>("data-", parent.path());
        std::filesystem::create_directories(made->path() + "/a directory/whose name is too long for a short string");
        return made;
    }

    WorkingDirectory const parent;
    LogCapture log{Log::Severity::Error};
};

TEST_F(TempDirHardenedTest, WhatCannotBeRemovedIsLoggedAndStays)
{
    auto sut = makeTree();
    std::string const path = sut->path();
    {
        NoDescriptors const none;

        sut.reset();
    }
    EXPECT_THAT(log.lines(), ElementsAre(LogLine{Log::Severity::Error, loggerName,
                                                 "Cannot remove temporary directory '" + path +
                                                     "', errno is 24: Too many open files"}));
    EXPECT_TRUE(std::filesystem::exists(path));
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
