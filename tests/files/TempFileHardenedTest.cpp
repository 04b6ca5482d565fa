// What the hardened build logs instead of ending the process, and what it does not leave.

#include <utils/TempFile.h>

#include "files/FailingTemporaries.h"
#include "files/WorkingDirectory.h"
#include "support/CallDouble.h"
#include "support/LogCapture.h"
#include "support/Resources.h"

#include <gmock/gmock.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>

namespace Halden::Tavro::Utils
{

namespace
{

using namespace testing;
using namespace TestSupport;

CallDouble<int(char const*)> removeDouble{"remove"};

}

extern "C" int remove(char const* path) noexcept
{
    return removeDouble(path);
}

namespace
{

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
    EXPECT_THAT(leftByConstructions<TempFile>({allocations()}, directory, "data-", ".h5"), IsEmpty());
}

TEST_F(TempFileHardenedTest, FileIsRemovedWithoutMemory)
{
    std::optional<TempFile> sut;
    auto const makeAndDestroy = [&]
    {
        sut.emplace("data-", ".h5", directory.path());
        sut.reset();
    };
    auto const expectRemoved = [&] { return std::filesystem::is_empty(directory.path()) ? "" : "a file"; };

    EXPECT_THAT(leftByFailingCalls({allocations()}, makeAndDestroy, expectRemoved), IsEmpty());
}

TEST_F(TempFileHardenedTest, FileThatCannotBeRemovedStaysClosed)
{
    auto const makeAndDestroy = [this] { TempFile("data-", ".h5", directory.path()); };
    auto const removeRest = [this]
    {
        for (auto const& entry : std::filesystem::directory_iterator(directory.path()))
        {
            std::filesystem::remove(entry.path());
        }
        return "";
    };

    EXPECT_THAT(leftByFailingCalls({callsOf("remove", removeDouble, -1, EBUSY)}, makeAndDestroy, removeRest),
                IsEmpty());
}

}

}
