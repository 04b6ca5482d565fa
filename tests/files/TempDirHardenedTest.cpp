// What the hardened build logs instead of ending the process, and what it does not leave.

#include <utils/TempDir.h>

#include "files/FailingTemporaries.h"
#include "files/UnlinkatDouble.h"
#include "files/WorkingDirectory.h"
#include "support/LogCapture.h"

#include <gmock/gmock.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
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
    EXPECT_THAT(leftByConstructions<TempDir>({allocations()}, parent, "data-"), IsEmpty());
}

/// It takes memory to look for what is in the directory. Without any, the tree stays like one that cannot be removed.
TEST_F(TempDirHardenedTest, DestructorThatFailsNeitherEndsTheProcessNorLeavesAnythingOpen)
{
    std::optional<TempDir> sut;
    auto const makeAndDestroy = [&]
    {
        sut.emplace("data-", parent.path());
        std::ofstream(sut->path() + "/file") << "content";
        sut.reset();
    };
    auto const removeRest = [&]
    {
        sut.reset();
        for (auto const& entry : std::filesystem::directory_iterator(parent.path()))
        {
            std::filesystem::remove_all(entry.path());
        }
        return "";
    };

    EXPECT_THAT(
        leftByFailingCalls({callsOf("unlinkat", unlinkatDouble, -1, EBUSY), allocations()}, makeAndDestroy, removeRest),
        IsEmpty());
}

TEST_F(TempDirHardenedTest, TreeThatFindsNoMemoryToBeRemovedIsLoggedAndStays)
{
    auto sut = std::make_unique<TempDir>("data-", parent.path());
    std::string const path = sut->path();
    std::ofstream(path + "/file") << "content";
    failNextAllocation(AllocationFailure::BadAlloc);

    sut.reset();

    EXPECT_TRUE(allocationHasFailed());
    EXPECT_THAT(log.lines(), ElementsAre(LogLine{Log::Severity::Error, loggerName,
                                                 "Cannot remove temporary directory '" + path +
                                                     "', errno is 12: Cannot allocate memory"}));
    EXPECT_TRUE(std::filesystem::exists(path + "/file"));
}

}

}
