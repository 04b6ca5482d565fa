#pragma once

#include <utils/Pipe.h>

#include "process/PipeNumbers.h"
#include "support/CallDouble.h"
#include "support/LogCapture.h"

#include <gmock/gmock.h>

#include <atomic>
#include <cstdio>
#include <memory>
#include <vector>

namespace Halden::Tavro::TestSupport
{

/// The test runtime makes such calls as well: without these, they go straight to the system.
extern std::atomic<bool> pipeUnderTest;
extern std::atomic<bool> pipeUseUnderTest;

extern CallDouble<int(int*)> pipeDouble;
extern CallDouble<int(int, int)> dup2Double;
extern CallDouble<int(int)> closeDouble;
extern CallDouble<std::FILE*(int, char const*)> fdopenDouble;

/// A Pipe whose descriptors may be of the test's making; it logs nothing.
///
/// For test programs that list process/PipeFixture.cpp among their sources.
class PipeFixture : public testing::Test
{
protected:
    PipeFixture()
    {
        reset();
        pipeUseUnderTest = true;
    }

    ~PipeFixture() override
    {
        pipeUseUnderTest = false;
        reset();
        EXPECT_THAT(log.lines(), testing::IsEmpty());
    }

    static void reset()
    {
        pipeDouble.reset();
        dup2Double.reset();
        closeDouble.reset();
        fdopenDouble.reset();
    }

    /// A Pipe of numbers that are no descriptors of this process, so that closing them again does no harm.
    static std::unique_ptr<Utils::Pipe> makeOf(PipeNumbers numbers)
    {
        pipeDouble.replace(
            [numbers](int* ends)
            {
                ends[0] = numbers.read;
                ends[1] = numbers.write;
                return 0;
            });
        closeDouble.replace([](int) { return 0; });
        return make();
    }

    static std::unique_ptr<Utils::Pipe> make()
    {
        pipeUnderTest = true;
        struct End
        {
            ~End() { pipeUnderTest = false; }
        } const end;
        return std::make_unique<Utils::Pipe>();
    }

    static std::vector<int> closed()
    {
        std::vector<int> numbers;
        for (auto const& [descriptor] : closeDouble.calls())
        {
            numbers.push_back(descriptor);
        }
        return numbers;
    }

    LogCapture log;
};

}
